#include "configuration.h"

#include "text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string_view>
#include <system_error>
#include <vector>

#include <KivFramework/KivStringHelper.h>
#include <fcntl.h>
#include <unistd.h>

using namespace KivFramework;

namespace {

constexpr const char* default_text =
    R"(# Settings of kiv-agent. Lines that begin with "#" are comments; changes made through
# kiv-console keep them. Relative paths start at the directory of this file.

[agent]

# Loopback port for consoles. With 0 the system picks a free one; port_file tells which.
port = 7416
port_file = agent.port

# Process id of the running agent; locked while it runs.
pid_file = agent.pid

# A peer that says nothing for longer than this many seconds (2 to 86400) is dropped.
silence_limit = 60

# Peers served at the same time (1 to 10000).
max_clients = 200

[log]

directory = log
file = agent.log

# 0 nothing, 1 starts, ends and failures, 2 also connections, 3 also every question.
level = 2

# A new file every: none, hourly, daily or monthly.
rotation = daily

[files]

# Consoles may read the regular files below this directory (md5, cat), with the rights of the agent.
# Without it they may read none.
#
# directory = /srv/public

[jobs]

# Programs that a console may start, by name. The program is a full path; double quotes keep
# an argument with spaces together. NAME.user runs the job as another account.
#
# backup = /usr/local/bin/backup --all "/srv/my files"
# backup.user = backup

)";

static_assert(agent::protocol::default_port == 7416, "the default text says so too");

constexpr std::uintmax_t longest_file = 1024UL * 1024;
// The loader reads lines into 2048 bytes, line feed and terminator included.
constexpr std::size_t longest_line = 2046;

constexpr const char* rotation_words[] = {"none", "hourly", "daily", "monthly"};

const std::set<std::string> known_keys = {
    "agent#port",        "agent#port_file", "agent#pid_file", "agent#silence_limit",
    "agent#max_clients", "log#directory",   "log#file",       "log#level",
    "log#rotation",      "files#directory"};

// Settings that a running agent can follow.
const std::set<std::string> live_keys = {"agent#silence_limit", "agent#max_clients", "log#level",
                                         "log#rotation"};

// Settings that name files. With them, as with the jobs, a console could do more than it may.
const std::set<std::string> path_keys = {"agent#port_file", "agent#pid_file", "log#directory",
                                         "log#file", "files#directory"};

std::string composed(const std::string& section, const std::string& key) {
    return KivStringHelper::ToLower(section + "#" + key);
}

bool begins_with(const std::string& text, std::string_view prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

std::string trimmed(std::string text) {
    KivStringHelper::TrimLeft(text);
    KivStringHelper::TrimRight(text);
    return text;
}

bool is_control(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

// Why the loader would drop or misread a line; empty when it would not. The loader skips silently
// what it does not understand, which suits a library; an operator wants to be told.
std::string line_problem(const std::string& line) {
    if (line.size() > longest_line) {
        return "longer than " + std::to_string(longest_line) + " bytes";
    }
    if (line.find_first_not_of(" \t\r") == std::string::npos || line[0] == '#') {
        return {};
    }
    if (line[0] == '[') {
        return line.find(']') == std::string::npos ? "a section header without \"]\"" : "";
    }
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos || equals == 0) {
        return "neither a setting, a section header nor a comment";
    }
    return {};
}

void check_text(const std::string& path, const std::string& text) {
    int number = 0;
    for (std::size_t start = 0; start < text.size();) {
        ++number;
        const std::string place = path + ":" + std::to_string(number) + ": ";
        const std::size_t end = text.find('\n', start);
        const std::string line = text.substr(start, end - start);
        if (line.find('\0') != std::string::npos) {
            throw agent::refusal(place + "not a text file: it has a zero byte");
        }
        const std::string problem = line_problem(line);
        if (!problem.empty()) {
            throw agent::refusal(place + problem);
        }
        if (end == std::string::npos) {
            throw agent::refusal(place + "the last line has no line feed and would be ignored");
        }
        start = end + 1;
    }
}

void write_default(const std::string& path) {
    std::ofstream stream(path, std::ios::binary);
    stream << default_text;
    stream.close();
    if (!stream) {
        throw agent::refusal(
            path + ": the default configuration cannot be written: " + agent::error_text(errno));
    }
}

// What a file is, told before the loader opens it: it would load a directory as an empty file.
void check_readable_text_file(const std::string& path) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(path, error);
    if (error) {
        throw agent::refusal(path + ": " + error.message());
    }
    if (std::filesystem::is_directory(status)) {
        throw agent::refusal(path + ": a directory, not a configuration file");
    }
    if (!std::filesystem::is_regular_file(status)) {
        throw agent::refusal(path + ": not a regular file");
    }
    if (std::filesystem::file_size(path, error) > longest_file || error) {
        throw agent::refusal(path + ": too large for a configuration file");
    }
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        throw agent::refusal(path + ": cannot be read: " + agent::error_text(errno));
    }
    check_text(path, {std::istreambuf_iterator<char>(stream.rdbuf()), {}});
}

int number_from(const std::string& text, const std::string& name, int lowest, int highest) {
    int number = 0;
    if (!agent::parse_number(text, lowest, highest, number)) {
        throw agent::refusal(name + ": '" + text + "' is not a number from " +
                             std::to_string(lowest) + " to " + std::to_string(highest));
    }
    return number;
}

int rotation_from(const std::string& text, const std::string& name) {
    const auto* const found = std::find(std::begin(rotation_words), std::end(rotation_words), text);
    if (found == std::end(rotation_words)) {
        throw agent::refusal(name + ": '" + text + "' is not none, hourly, daily or monthly");
    }
    return static_cast<int>(found - std::begin(rotation_words));
}

std::string absolute_path(const std::string& text, const std::string& name,
                          const std::filesystem::path& base) {
    if (text.empty()) {
        throw agent::refusal(name + ": empty");
    }
    std::string path = (base / text).lexically_normal().string();
    if (path.size() > 1 && path.back() == '/') {
        path.pop_back(); // a directory is the same with and without
    }
    return path;
}

void check_job(const std::string& name, const agent::job_definition& job) {
    if (name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_-") != std::string::npos) {
        throw agent::refusal("[jobs] " + name +
                             ": a job's name is made of letters, digits, '_' and '-'");
    }
    if (job.command.empty()) {
        throw agent::refusal("[jobs] " + name + ": no command line");
    }
    std::string program;
    std::string arguments;
    if (!KivStringHelper::SplitCommandLines(job.command, program, arguments) ||
        !begins_with(program, "/")) {
        throw agent::refusal("[jobs] " + name + ": '" + program +
                             "' is not the full path of a program");
    }
}

// The library's composed keys are "section#key" in lower case.
std::map<std::string, agent::job_definition> jobs_of(kivConfigManager& manager) {
    constexpr std::string_view section = "jobs#";
    constexpr std::string_view user_suffix = ".user";
    std::map<std::string, agent::job_definition> jobs;
    for (const auto& [key, ignored] : manager.values) {
        if (!begins_with(key, section)) {
            continue;
        }
        std::string name = key.substr(section.size());
        const std::string value =
            trimmed(GetConfigValue(&manager, "jobs", name.c_str(), std::string()));
        const bool is_user =
            name.size() > user_suffix.size() &&
            std::string_view(name).substr(name.size() - user_suffix.size()) == user_suffix;
        if (is_user) {
            name.resize(name.size() - user_suffix.size());
            jobs[name].user = value;
        } else {
            jobs[name].command = value;
        }
    }
    for (const auto& [name, job] : jobs) {
        check_job(name, job);
    }
    return jobs;
}

// The agent writes each of its files from the start: two of a name would destroy one another.
void check_files_differ(std::vector<std::string> paths) {
    std::sort(paths.begin(), paths.end());
    const auto twice = std::adjacent_find(paths.begin(), paths.end());
    if (twice != paths.end()) {
        throw agent::refusal("two of the agent's files are both " + *twice);
    }
}

void check_change(const std::string& section, const std::string& key, const std::string& value) {
    if (section.empty() || key.empty()) {
        throw agent::refusal("a setting needs a section and a key");
    }
    for (const std::string* part : {&section, &key, &value}) {
        if (std::any_of(part->begin(), part->end(), is_control)) {
            throw agent::refusal("control characters cannot be kept in a configuration file");
        }
    }
    if (section.find_first_of("]#") != std::string::npos || key.find('=') != std::string::npos ||
        key[0] == '[' || key[0] == '#') {
        throw agent::refusal("'" + section + "' and '" + key +
                             "' cannot name a section and a key of a configuration file");
    }
    if (key.size() + value.size() + std::strlen(" = ") > longest_line) {
        throw agent::refusal("the setting is too long for a line of a configuration file");
    }
    if (KivStringHelper::ToLower(section) == "jobs" || path_keys.contains(composed(section, key))) {
        throw agent::refusal("jobs and files are named in the configuration file only");
    }
}

void sync_to_disk(const std::string& path) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file != -1) {
        ::fsync(file); // where it fails, the reading back still stands
        ::close(file);
    }
}

// The system copies in few calls, each of which a signal may end.
void copy_file(const std::string& from, const std::string& to, std::error_code& error) {
    do {
        std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing,
                                   error);
    } while (error == std::errc::interrupted);
}

// Saves to `copy` and tells whether all settings are there. Saving edits the text in place and
// reports neither a full disk nor a setting that it had to add at the end of a line because its
// section ends without an empty one. Whatever happened, a copy that reads back whole is right.
bool reads_back_whole(kivConfigManager& changed, const std::string& copy) {
    kivConfigManager read_back;
    return SaveConfigFile(&changed, copy.c_str()) && LoadConfigFile(&read_back, copy.c_str()) &&
           std::all_of(changed.values.begin(), changed.values.end(), [&](const auto& entry) {
               const auto found = read_back.values.find(entry.first);
               return found != read_back.values.end() && found->second == entry.second;
           });
}

} // namespace

agent::configuration::configuration(const std::string& path)
    : path_(std::filesystem::absolute(path).lexically_normal().string()) {
    std::error_code error;
    if (!std::filesystem::exists(path_, error) && !error) {
        write_default(path_);
    }
    // The file itself rather than a link to it: changes replace it, and a link has to stay.
    const std::filesystem::path real = std::filesystem::canonical(path_, error);
    if (!error) {
        path_ = real.string();
    }
    manager_ = load();
    settings_ = checked(manager_);
}

std::optional<std::string> agent::configuration::get(const std::string& section,
                                                     const std::string& key) {
    if (!manager_.values.contains(composed(section, key))) {
        return std::nullopt;
    }
    return trimmed(GetConfigValue(&manager_, section.c_str(), key.c_str(), std::string()));
}

bool agent::configuration::set(const std::string& section, const std::string& key,
                               const std::string& value) {
    const std::string trimmed_value = trimmed(value);
    check_change(section, key, trimmed_value);
    kivConfigManager changed = load();
    SetConfigValue(&changed, section.c_str(), key.c_str(), trimmed_value.c_str());
    settings new_settings = checked(changed);
    replace_file(changed);
    manager_ = std::move(changed);
    settings_ = std::move(new_settings);
    return live_keys.contains(composed(section, key));
}

kivConfigManager agent::configuration::load() const {
    check_readable_text_file(path_);
    kivConfigManager manager;
    if (!LoadConfigFile(&manager, path_.c_str())) {
        throw refusal(path_ + ": cannot be read");
    }
    return manager;
}

agent::settings agent::configuration::checked(kivConfigManager& manager) const {
    for (const auto& [key, value] : manager.values) {
        const bool is_ours =
            begins_with(key, "agent#") || begins_with(key, "log#") || begins_with(key, "files#");
        if (is_ours && !known_keys.contains(key)) {
            const std::size_t separator = key.find('#');
            throw refusal(path_ + ": [" + key.substr(0, separator) + "] has no setting '" +
                          key.substr(separator + 1) + "'");
        }
    }
    // The numeric getters read any text as some number, so the texts are taken and checked here.
    const auto text = [&manager](const char* section, const char* key, const char* missing) {
        return trimmed(GetConfigValue(&manager, section, key, std::string(missing)));
    };
    const std::filesystem::path base = std::filesystem::path(path_).parent_path();
    settings result;
    try {
        result.port =
            number_from(text("agent", "port", std::to_string(protocol::default_port).c_str()),
                        "[agent] port", 0, 65535);
        result.port_file =
            absolute_path(text("agent", "port_file", "agent.port"), "[agent] port_file", base);
        result.pid_file =
            absolute_path(text("agent", "pid_file", "agent.pid"), "[agent] pid_file", base);
        result.silence_limit =
            number_from(text("agent", "silence_limit", "60"), "[agent] silence_limit", 2, 86400);
        result.max_clients =
            number_from(text("agent", "max_clients", "200"), "[agent] max_clients", 1, 10000);
        result.log_directory =
            absolute_path(text("log", "directory", "log"), "[log] directory", base);
        result.log_file = text("log", "file", "agent.log");
        if (result.log_file.empty() || result.log_file.find('/') != std::string::npos) {
            throw refusal("[log] file: '" + result.log_file + "' is not a file name");
        }
        result.log_level = number_from(text("log", "level", "2"), "[log] level", 0, 3);
        result.log_rotation = rotation_from(text("log", "rotation", "daily"), "[log] rotation");
        const std::string files = text("files", "directory", "");
        if (!files.empty()) {
            result.files_directory = absolute_path(files, "[files] directory", base);
        }
        result.jobs = jobs_of(manager);
        check_files_differ({path_, result.port_file, result.pid_file,
                            result.log_directory + "/" + result.log_file});
    } catch (const refusal& problem) {
        throw refusal(path_ + ": " + problem.what());
    }
    return result;
}

void agent::configuration::replace_file(kivConfigManager& changed) const {
    const std::string copy = path_ + ".new";
    std::error_code error;
    copy_file(path_, copy, error);
    if (!error && reads_back_whole(changed, copy)) {
        sync_to_disk(copy);
        std::filesystem::rename(copy, path_, error);
        if (!error) {
            return;
        }
    }
    std::error_code ignored;
    std::filesystem::remove(copy, ignored);
    if (error) {
        throw refusal(path_ + " is unchanged: " + error.message());
    }
    throw refusal(path_ + " is unchanged: the new text would not read back as it should; an empty "
                          "line at the end of each section helps, and room on the disk");
}
