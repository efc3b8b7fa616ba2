#include "server.h"

#include "text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <exception>
#include <limits>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include <KivFramework/KivLibrary.h>
#include <KivFramework/KivLogger.h>
#include <KivFramework/KivProcesses.h>
#include <KivFramework/KivSocket.h>
#include <KivFramework/KivStringHelper.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

using namespace KivFramework;

namespace {

constexpr const char* module = "agent";

constexpr int house_keeping_ms = 1000;
constexpr int log_following_ms = 200; // while a console follows the log
constexpr std::chrono::seconds last_words_limit(2);
constexpr int questions_per_turn = 8;
constexpr int most_properties = 1000;
constexpr std::size_t longest_property_name = 100;
constexpr std::size_t longest_listed_value = 200;

// The user flag of a property.
constexpr bool from_agent = false;
constexpr bool from_console = true;

constexpr std::array<int, 3> ending_signals = {SIGTERM, SIGINT, SIGHUP};

std::string text_of(const sockaddr_in& address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    return std::string(text.data()) + ":" + std::to_string(ntohs(address.sin_port));
}

std::string host_name() {
    std::string name = "unknown";
    GetHostName(name);
    return name;
}

std::string loads_text(const std::vector<double>& loads) {
    std::string text;
    for (const double load : loads) {
        if (!text.empty()) {
            text += ' ';
        }
        text += agent::percent_text(load);
    }
    return text;
}

// A text for a line of a list: without control characters, and cut, between characters, where it is
// long.
std::string one_line(const std::string& text) {
    const auto is_inside_character = [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
    };
    std::size_t end = std::min(text.size(), longest_listed_value);
    while (end > 0 && end < text.size() && is_inside_character(text[end])) {
        --end;
    }
    std::string line;
    for (const char c : text.substr(0, end)) {
        const bool is_control = static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
        line += c == '\n' ? "\\n" : std::string(1, is_control ? '?' : c);
    }
    return line + (end < text.size() ? "..." : "");
}

// Takes the first line off the front of `text`.
std::string take_line(std::string& text) {
    std::string line;
    KivStringHelper::ExtractToken(text, line, "\n");
    return line;
}

int positive_number_from(const std::string& text, const char* what) {
    int number = 0;
    if (!agent::parse_number(text, 1, std::numeric_limits<int>::max(), number)) {
        throw agent::refusal("'" + text + "' is not " + what);
    }
    return number;
}

} // namespace

void agent::block_ending_signals(bool block) {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : ending_signals) {
        sigaddset(&signals, number);
    }
    ::pthread_sigmask(block ? SIG_BLOCK : SIG_UNBLOCK, &signals, nullptr);
}

agent::server::server(configuration& config, agent_log& log, const listener& entrance,
                      const file_area& files)
    : config_(config), log_(log), entrance_(entrance), files_(files),
      signals_({ending_signals[0], ending_signals[1], ending_signals[2], SIGCHLD}),
      jobs_(config.values().jobs, loop_) {
    if (!loop_.watch(signals_.descriptor(), [this](readiness) { on_signals(); }) ||
        !loop_.watch(entrance_.socket(), [this](readiness) { accept_waiting(); })) {
        throw std::system_error(errno, std::generic_category(), "kevent");
    }
    publish_properties();
    block_ending_signals(false);
}

agent::server::~server() {
    block_ending_signals(true); // the end is under way; nothing is to cut it short
}

void agent::server::run() {
    KivLogger::AddLogEntry(GetDefaultLogger(), notable, module,
                           "listening on 127.0.0.1:%d (pid %d)", entrance_.port(),
                           KivProcesses::GetCurrentProcessPid());
    clock::time_point deadline = clock::time_point::max();
    while (!stopping_ || (has_output_pending() && clock::now() < deadline)) {
        if (stopping_ && deadline == clock::time_point::max()) {
            deadline = clock::now() + last_words_limit;
        }
        const bool followed = std::any_of(peers_.begin(), peers_.end(), [](const auto& entry) {
            return entry.second->follows_log();
        });
        const int wait_ms = followed || stopping_ ? log_following_ms : house_keeping_ms;
        loop_.run_once(has_work() ? 0 : wait_ms);
        give_turns();
        keep_house();
        drop_failed();
    }
    KivLogger::AddLogEntry(GetDefaultLogger(), notable, module, "ended");
}

// What consoles can read about the agent itself, before what they set themselves.
void agent::server::publish_properties() {
    long now = std::time(nullptr);
    properties_.SetString("agent.version", KIV_AGENT_VERSION, from_agent,
                          /*string_only_flag=*/true);
    properties_.SetInt("agent.pid", KivProcesses::GetCurrentProcessPid(), from_agent);
    properties_.SetInt("agent.port", entrance_.port(), from_agent);
    properties_.SetTimet("agent.started", &now, from_agent);
}

void agent::server::on_signals() {
    for (const int number : signals_.take()) {
        if (number == SIGCHLD) {
            jobs_.reap();
        } else {
            stop("signal " + std::to_string(number));
        }
    }
}

void agent::server::accept_waiting() {
    for (;;) {
        sockaddr_in address{};
        unsigned int length = sizeof(address);
        const int socket = KivSocket::AcceptSocket(entrance_.socket(),
                                                   reinterpret_cast<sockaddr*>(&address), &length);
        if (socket != -1) {
            admit(socket, text_of(address));
            continue;
        }
        const int error = errno;
        if (error == EINTR || error == ECONNABORTED) {
            continue;
        }
        if (error != EAGAIN) {
            // Out of descriptors or memory: the waiting connection stays and would wake the loop
            // again at once. The next housekeeping tries again.
            pause_accepting();
            KivLogger::AddLogEntry(GetDefaultLogger(), notable, module, "cannot accept: %s",
                                   error_text(error).c_str());
        }
        return;
    }
}

void agent::server::admit(int socket, const std::string& address) {
    keep_from_children(socket);
    errno = 0; // SetBlockStatus and CloseSocket give up when an old EBADF is still standing there
    if (peers_.size() >= static_cast<std::size_t>(config_.values().max_clients) ||
        !KivSocket::SetBlockStatus(socket, /*blocking=*/false)) {
        KivSocket::CloseSocket(socket);
        KivLogger::AddLogEntry(GetDefaultLogger(), notable, module,
                               "%s dropped: %d peers are connected already", address.c_str(),
                               static_cast<int>(peers_.size()));
        return;
    }
    KivSocket::SetNagleStatus(socket, /*enabled=*/false);
    const auto added =
        peers_.emplace(socket, std::make_unique<peer>(socket, address, loop_, traffic_));
    peer& admitted = *added.first->second;
    loop_.serve(socket, [this, &admitted](readiness what) { on_peer_ready(admitted, what); });
    KivLogger::AddLogEntry(GetDefaultLogger(), connections, module, "%s connected",
                           address.c_str());
}

void agent::server::pause_accepting() {
    accepting_ = false;
    loop_.pause(entrance_.socket());
}

void agent::server::on_peer_ready(peer& ready, readiness what) {
    if (ready.failed()) {
        return; // about to be dropped
    }
    if (what == readiness::writable) {
        ready.send();
        if (ready.keeps_up()) {
            jobs_.resume(ready);
        }
        return;
    }
    ready.receive();
}

// A bounded share of work for every peer that has some, so that neither a thousand questions sent
// at once nor a large file keeps the others waiting.
void agent::server::give_turns() {
    for (const auto& [socket, asker] : peers_) {
        protocol::request type{};
        std::string body;
        for (int i = 0; i < questions_per_turn && asker->has_questions(); ++i) {
            if (asker->next_question(type, body)) {
                answer(*asker, type, body);
            }
        }
    }
    pass_on_files();
}

// One piece of one file; the peers that read files take turns.
void agent::server::pass_on_files() {
    auto next = peers_.upper_bound(last_file_reader_);
    for (std::size_t i = 0; i < peers_.size(); ++i, ++next) {
        if (next == peers_.end()) {
            next = peers_.begin();
        }
        if (reads_on(*next->second)) {
            last_file_reader_ = next->first;
            next->second->pass_on_file();
            return;
        }
    }
}

// No file is read on at the end: it would only keep the last words of the others waiting.
bool agent::server::reads_on(const peer& reader) const {
    return !stopping_ && reader.can_pass_on_file();
}

bool agent::server::has_work() const {
    return std::any_of(peers_.begin(), peers_.end(), [this](const auto& entry) {
        return entry.second->has_questions() || reads_on(*entry.second);
    });
}

void agent::server::drop(int socket) {
    const auto found = peers_.find(socket);
    const peer& leaving = *found->second;
    KivLogger::AddLogEntry(GetDefaultLogger(), leaving.left() ? connections : notable, module,
                           leaving.left() ? "%s left: %s" : "%s dropped: %s",
                           leaving.address().c_str(), leaving.failure().c_str());
    jobs_.leave(leaving);
    loop_.forget(socket);
    peers_.erase(found);
}

void agent::server::drop_failed() {
    for (auto next = peers_.begin(); next != peers_.end();) {
        const auto current = next++;
        if (current->second->failed()) {
            drop(current->first);
        }
    }
}

void agent::server::keep_house() {
    const clock::time_point now = clock::now();
    for (const auto& [socket, connected] : peers_) {
        if (connected->follows_log()) {
            log_.flush_file();
            connected->pass_on_log();
        }
    }
    if (now < next_housekeeping_) {
        return;
    }
    next_housekeeping_ = now + std::chrono::milliseconds(house_keeping_ms);
    check_silence();
    // The detached writer leaves its lines in the C library's buffer. Whoever reads the file
    // expects them there.
    log_.flush_file();
    if (!accepting_ && !stopping_) {
        accepting_ = true;
        loop_.resume(entrance_.socket());
    }
}

void agent::server::check_silence() {
    const bool clock_was_set = clock_watch_.was_set();
    if (clock_was_set) {
        KivLogger::AddLogEntry(GetDefaultLogger(), notable, module,
                               "the clock was set: the silence of peers counts from now");
    }
    for (const auto& [socket, connected] : peers_) {
        if (clock_was_set) {
            connected->forgive_silence();
        }
        connected->check_silence(config_.values().silence_limit);
    }
}

void agent::server::stop(const std::string& reason) {
    if (stopping_) {
        return;
    }
    stopping_ = true;
    pause_accepting();
    KivLogger::AddLogEntry(GetDefaultLogger(), notable, module, "ending: %s", reason.c_str());
    jobs_.kill_all();
}

long agent::server::uptime_seconds() const {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::seconds>(clock::now() - start_).count());
}

bool agent::server::has_output_pending() const {
    return std::any_of(peers_.begin(), peers_.end(), [](const auto& entry) {
        return !entry.second->failed() && entry.second->has_output_pending();
    });
}

void agent::server::answer(peer& asker, protocol::request type, const std::string& body) {
    struct question {
        const char* name;
        void (server::*answer)(peer& asker, const std::string& body);
    };
    using protocol::request;
    static const std::map<request, question> known = {
        {request::status, {"status", &server::answer_status}},
        {request::view, {"top", &server::answer_view}},
        {request::tree, {"tree", &server::answer_tree}},
        {request::jobs, {"jobs", &server::answer_jobs}},
        {request::run, {"run", &server::answer_run}},
        {request::kill, {"kill", &server::answer_kill}},
        {request::get, {"get", &server::answer_get}},
        {request::set, {"set", &server::answer_set}},
        {request::properties, {"properties", &server::answer_properties}},
        {request::config_get, {"config get", &server::answer_config_get}},
        {request::config_set, {"config set", &server::answer_config_set}},
        {request::tail, {"tail", &server::answer_tail}},
        {request::follow, {"tail -f", &server::answer_follow}},
        {request::md5, {"md5", &server::answer_md5}},
        {request::cat, {"cat", &server::answer_cat}},
        {request::rotate, {"rotate", &server::answer_rotate}},
        {request::stop, {"stop", &server::answer_stop}},
    };
    const auto found = known.find(type);
    if (found == known.end()) {
        return asker.fail("malformed: unknown message type " +
                          std::to_string(static_cast<unsigned char>(type)));
    }
    KivLogger::AddLogEntry(GetDefaultLogger(), questions, module, "%s asks: %s",
                           asker.address().c_str(), found->second.name);
    try {
        (this->*found->second.answer)(asker, body);
    } catch (const std::exception& problem) {
        // Mostly a refusal; but whatever a question runs into, it must not end the agent.
        asker.answer_failed(problem.what());
    }
}

void agent::server::answer_status(peer& asker, const std::string& /*body*/) {
    KivProcesses::LockMutex(traffic_.mutex);
    const long long sent = traffic_.bytes_sent;
    const long long received = traffic_.bytes_received;
    KivProcesses::UnlockMutex(traffic_.mutex);

    std::string text;
    const auto line = [&text](const char* name, const std::string& value) {
        text += std::string(name) + ": " + value + "\n";
    };
    line("host", host_name());
    line("pid", KivStringHelper::FromInt(KivProcesses::GetCurrentProcessPid()));
    line("uptime", KivStringHelper::FormatTimespan(uptime_seconds()));
    line("processors", KivStringHelper::FromInt(GetProcessorsCount()));
    line("processor loads", loads_text(machine_.processor_loads()));
    const std::optional<memory_use> memory = machine_.memory();
    line("memory", memory ? memory_text(*memory) : "not known yet");
    line("clients", KivStringHelper::FromSizet(peers_.size()));
    line("questions", KivStringHelper::FromInt64(traffic_.questions));
    line("bytes received", KivStringHelper::FromInt64(received));
    line("bytes sent", KivStringHelper::FromInt64(sent));
    line("jobs running", KivStringHelper::FromInt(jobs_.running_count()));
    line("properties", KivStringHelper::FromInt(properties_.GetSize()));
    line("configuration", config_.path());
    line("log", log_.path());
    asker.answer(text);
    asker.answer_done();
}

void agent::server::answer_view(peer& asker, const std::string& /*body*/) {
    snapshot shown;
    shown.host = host_name();
    shown.pid = KivProcesses::GetCurrentProcessPid();
    shown.uptime_seconds = uptime_seconds();
    shown.clients = static_cast<int>(peers_.size());
    shown.questions = traffic_.questions;
    shown.processor_loads = machine_.processor_loads();
    shown.memory = machine_.memory();
    shown.jobs = jobs_.rows();
    asker.answer(to_text(shown));
    asker.answer_done();
}

void agent::server::answer_tree(peer& asker, const std::string& pid) {
    const std::string text = process_tree_text(positive_number_from(pid, "a process id"));
    if (text.empty()) {
        throw refusal("there is no process " + pid);
    }
    asker.answer(text);
    asker.answer_done();
}

void agent::server::answer_jobs(peer& asker, const std::string& /*body*/) {
    std::string text;
    for (const job_row& job : jobs_.rows()) {
        text += job.name + ": " + job.state + ": " + job.command + "\n";
    }
    asker.answer(text);
    asker.answer_done();
}

void agent::server::answer_run(peer& asker, const std::string& name) {
    jobs_.start(name, asker);
    asker.keep_answer_open();
}

void agent::server::answer_kill(peer& asker, const std::string& name) {
    const int count = jobs_.kill(name);
    asker.answer("killed " + std::to_string(count) + (count == 1 ? " process\n" : " processes\n"));
    asker.answer_done();
}

void agent::server::answer_get(peer& asker, const std::string& name) {
    std::string value;
    if (!properties_.GetString(name.c_str(), value, nullptr, nullptr)) {
        throw refusal("there is no property " + name);
    }
    asker.answer(value + "\n");
    asker.answer_done();
}

void agent::server::answer_set(peer& asker, const std::string& body) {
    std::string value = body;
    const std::string name = take_line(value);
    if (name.empty() || name.size() > longest_property_name) {
        throw refusal("a property's name has 1 to " + std::to_string(longest_property_name) +
                      " bytes");
    }
    std::string before;
    bool by_console = false;
    const bool exists = properties_.GetString(name.c_str(), before, &by_console, nullptr);
    if (exists && by_console == from_agent) {
        throw refusal("property " + name + " is the agent's own");
    }
    if (!exists && properties_.GetSize() >= most_properties) {
        throw refusal("there are " + std::to_string(most_properties) + " properties already");
    }
    properties_.SetString(name.c_str(), value, from_console, /*string_only_flag=*/true);
    asker.answer_done();
}

void agent::server::answer_properties(peer& asker, const std::string& /*body*/) {
    std::string text;
    for (auto at = properties_.Begin(); at != properties_.End(); ++at) {
        const item_attr property = *at;
        text += property.userFlag == from_console ? 'c' : '-';
        text += property.stringOnlyFlag ? "t " : "- ";
        text += one_line(property.name) + " = " + one_line(property.value) + "\n";
    }
    asker.answer(text);
    asker.answer_done();
}

void agent::server::answer_config_get(peer& asker, const std::string& body) {
    std::string key = body;
    const std::string section = take_line(key);
    const std::optional<std::string> value = config_.get(section, key);
    if (!value) {
        throw refusal("the configuration has no setting '" + key + "' in [" + section + "]");
    }
    asker.answer(*value + "\n");
    asker.answer_done();
}

void agent::server::answer_config_set(peer& asker, const std::string& body) {
    std::string value = body;
    const std::string section = take_line(value);
    const std::string key = take_line(value);
    const bool at_once = config_.set(section, key, value);
    log_.adjust(config_.values());
    KivLogger::AddLogEntry(GetDefaultLogger(), notable, module, "%s set [%s] %s = %s",
                           asker.address().c_str(), section.c_str(), key.c_str(), value.c_str());
    asker.answer(at_once ? "saved\n" : "saved; it takes effect with the next start\n");
    asker.answer_done();
}

void agent::server::answer_tail(peer& asker, const std::string& count) {
    const int lines = positive_number_from(count, "a number of lines");
    log_.flush_all();
    asker.answer(last_lines(log_.path(), lines));
    asker.answer_done();
}

void agent::server::answer_follow(peer& asker, const std::string& count) {
    const int lines = positive_number_from(count, "a number of lines");
    log_.flush_all();
    // The follower is placed first: a line that comes in between is shown twice, never lost.
    auto follower = std::make_unique<log_follower>(log_.path());
    asker.answer(last_lines(log_.path(), lines));
    asker.follow(std::move(follower));
}

void agent::server::answer_md5(peer& asker, const std::string& path) {
    asker.begin_file({files_.open(path), file_answer::kind::digest});
}

void agent::server::answer_cat(peer& asker, const std::string& path) {
    asker.begin_file({files_.open(path), file_answer::kind::contents});
}

void agent::server::answer_rotate(peer& asker, const std::string& /*body*/) {
    const std::string rotated = log_.rotate_now();
    if (rotated.empty()) {
        throw refusal("the log file could not be moved");
    }
    KivLogger::AddLogEntry(GetDefaultLogger(), notable, module, "log rotated to %s",
                           rotated.c_str());
    asker.answer(rotated + "\n");
    asker.answer_done();
}

void agent::server::answer_stop(peer& asker, const std::string& /*body*/) {
    asker.answer("the agent ends\n");
    asker.answer_done();
    stop("asked by " + asker.address());
}
