#include "server.h"

#include "text.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <exception>
#include <limits>
#include <system_error>
#include <utility>

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
constexpr std::size_t most_properties = 1000;
constexpr std::array<int, 3> ending_signals = {SIGTERM, SIGINT, SIGHUP};

// The pipe that turns signals into something the loop waits for; a handler has no other way in.
std::array<int, 2> signal_pipe = {-1, -1};

std::atomic<int> signal_to_end = 0; // the last one of `ending_signals` that came

extern "C" void pass_signal_on(int number) {
    const int saved_errno = errno;
    if (number != SIGCHLD) {
        signal_to_end = number;
    }
    // A full pipe takes no more bytes, but then what is in it wakes the loop all the same.
    [[maybe_unused]] const ssize_t written = ::write(signal_pipe[1], "", 1);
    errno = saved_errno;
}

void handle_signal(int number, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    sigemptyset(&action.sa_mask);
    ::sigaction(number, &action, nullptr);
}

bool is_ignored(int number) {
    struct sigaction present {};
    return ::sigaction(number, nullptr, &present) == 0 && present.sa_handler == SIG_IGN;
}

std::string text_of(const sockaddr_in& address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    return std::string(text.data()) + ":" + std::to_string(ntohs(address.sin_port));
}

std::string uptime_words(std::chrono::seconds uptime) {
    constexpr std::array<std::pair<long, const char*>, 4> units = {
        {{86400, "day"}, {3600, "hour"}, {60, "minute"}, {1, "second"}}};
    long rest = static_cast<long>(uptime.count());
    std::string words;
    for (const auto& [length, name] : units) {
        const long count = rest / length;
        rest %= length;
        if (count > 0 || (length == 1 && words.empty())) {
            words += (words.empty() ? "" : ", ") + std::to_string(count) + " " + name +
                     (count == 1 ? "" : "s");
        }
    }
    return words;
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

agent::server::server(configuration& config, agent_log& log, const listener& entrance)
    : config_(config), log_(log), entrance_(entrance), jobs_(config.values().jobs, loop_) {
    watch_signals();
    if (!loop_.watch(entrance_.socket(), [this](readiness) { accept_waiting(); })) {
        throw std::system_error(errno, std::generic_category(), "kevent");
    }
}

agent::server::~server() {
    handle_signal(SIGCHLD, SIG_DFL);
    for (const int number : ending_signals) {
        handle_signal(number, SIG_IGN); // the end is under way; nothing is to cut it short
    }
    for (const int end : signal_pipe) {
        ::close(end);
    }
    signal_pipe = {-1, -1};
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
        loop_.run_once(followed || stopping_ ? log_following_ms : house_keeping_ms);
        keep_house();
        drop_failed();
    }
    KivLogger::AddLogEntry(GetDefaultLogger(), notable, module, "ended");
}

void agent::server::watch_signals() {
    errno = 0; // SetBlockStatus, at work inside, gives up when an old EBADF is still standing there
    if (KivSocket::CreateLoopbackPipes(signal_pipe.data()) == -1) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    for (const int end : signal_pipe) {
        keep_from_children(end);
    }
    if (!loop_.watch(signal_pipe[0], [this](readiness) { on_signals(); })) {
        throw std::system_error(errno, std::generic_category(), "kevent");
    }
    handle_signal(SIGCHLD, pass_signal_on);
    for (const int number : ending_signals) {
        if (!is_ignored(number)) { // as after nohup
            handle_signal(number, pass_signal_on);
        }
    }
    block_ending_signals(false);
}

void agent::server::on_signals() {
    std::array<char, 64> ignored{};
    [[maybe_unused]] const ssize_t count = ::read(signal_pipe[0], ignored.data(), ignored.size());
    if (signal_to_end != 0) {
        stop("signal " + std::to_string(signal_to_end));
    }
    jobs_.reap();
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
    protocol::request type{};
    std::string body;
    while (ready.next_question(type, body)) {
        answer(ready, type, body);
    }
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
    for (const auto& [socket, connected] : peers_) {
        connected->check_silence(config_.values().silence_limit);
    }
    // The detached writer leaves its lines in the C library's buffer. Whoever reads the file
    // expects them there.
    log_.flush_file();
    if (!accepting_ && !stopping_) {
        accepting_ = true;
        loop_.resume(entrance_.socket());
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
        {request::tree, {"tree", &server::answer_tree}},
        {request::jobs, {"jobs", &server::answer_jobs}},
        {request::run, {"run", &server::answer_run}},
        {request::kill, {"kill", &server::answer_kill}},
        {request::get, {"get", &server::answer_get}},
        {request::set, {"set", &server::answer_set}},
        {request::config_get, {"config get", &server::answer_config_get}},
        {request::config_set, {"config set", &server::answer_config_set}},
        {request::tail, {"tail", &server::answer_tail}},
        {request::follow, {"tail -f", &server::answer_follow}},
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
    std::string host = "unknown";
    GetHostName(host);
    const auto uptime = std::chrono::duration_cast<std::chrono::seconds>(clock::now() - start_);
    KivProcesses::LockMutex(traffic_.mutex);
    const long long sent = traffic_.bytes_sent;
    const long long received = traffic_.bytes_received;
    KivProcesses::UnlockMutex(traffic_.mutex);

    std::string text;
    const auto line = [&text](const char* name, const std::string& value) {
        text += std::string(name) + ": " + value + "\n";
    };
    line("host", host);
    line("pid", KivStringHelper::FromInt(KivProcesses::GetCurrentProcessPid()));
    line("uptime", uptime_words(uptime));
    line("processors", KivStringHelper::FromInt(GetProcessorsCount()));
    line("clients", KivStringHelper::FromSizet(peers_.size()));
    line("questions", KivStringHelper::FromInt64(traffic_.questions));
    line("bytes received", KivStringHelper::FromInt64(received));
    line("bytes sent", KivStringHelper::FromInt64(sent));
    line("jobs running", KivStringHelper::FromInt(jobs_.running_count()));
    line("properties", KivStringHelper::FromSizet(properties_.size()));
    line("configuration", config_.path());
    line("log", log_.path());
    asker.answer(text);
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
    asker.answer(jobs_.list());
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
    const auto found = properties_.find(name);
    if (found == properties_.end()) {
        throw refusal("there is no property " + name);
    }
    asker.answer(found->second + "\n");
    asker.answer_done();
}

void agent::server::answer_set(peer& asker, const std::string& body) {
    std::string value = body;
    const std::string name = take_line(value);
    if (name.empty()) {
        throw refusal("a property needs a name");
    }
    if (properties_.size() >= most_properties && !properties_.contains(name)) {
        throw refusal("there are " + std::to_string(most_properties) + " properties already");
    }
    properties_[name] = value;
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
