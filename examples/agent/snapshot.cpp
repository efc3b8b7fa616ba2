#include "snapshot.h"

#include <array>
#include <charconv>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include <KivFramework/KivStringHelper.h>

using namespace KivFramework;

namespace {

constexpr char separator = '\t'; // between the parts of a job's line

// A part of a job's line; its own separators and line feeds become blanks.
std::string part(std::string text) {
    for (char& c : text) {
        if (c == separator || c == '\n') {
            c = ' ';
        }
    }
    return text;
}

// With a point before its decimals in every locale.
std::string fixed(double value, int decimals) {
    std::array<char, 64> text{};
    char* const begin = text.data();
    char* const end =
        std::to_chars(begin, begin + text.size(), value, std::chars_format::fixed, decimals).ptr;
    return {begin, end};
}

template <typename number>
number number_from(std::string_view text) {
    number value{};
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end) {
        throw std::runtime_error("'" + std::string(text) + "' is not a number");
    }
    return value;
}

// Takes what stands before `end` off the front of `text`; all of it when there is no such byte.
std::string_view take_until(std::string_view& text, char end) {
    const std::size_t length = text.find(end);
    const std::string_view taken = text.substr(0, length);
    text.remove_prefix(length == std::string_view::npos ? text.size() : length + 1);
    return taken;
}

double load_from(std::string_view text) {
    const auto load = number_from<double>(text);
    if (!(load >= 0 && load <= 100)) { // not a number is in no range either
        throw std::runtime_error("a processor's load is not " + std::string(text));
    }
    return load;
}

agent::job_row job_from(std::string_view line) {
    agent::job_row job;
    job.running = take_until(line, separator) == "1";
    job.name = take_until(line, separator);
    job.state = take_until(line, separator);
    job.command = line;
    return job;
}

agent::memory_use memory_from(std::string_view line) {
    agent::memory_use memory;
    memory.used = number_from<unsigned long long>(take_until(line, ' '));
    memory.amount = number_from<unsigned long long>(line);
    if (memory.used > memory.amount) {
        throw std::runtime_error("more memory in use than there is");
    }
    return memory;
}

} // namespace

std::string agent::to_text(const snapshot& shown) {
    std::string text;
    const auto line = [&text](const char* name, const std::string& value) {
        text += std::string(name) + " " + value + "\n";
    };
    line("host", part(shown.host));
    line("pid", KivStringHelper::FromInt(shown.pid));
    line("uptime", KivStringHelper::FromLong(shown.uptime_seconds));
    line("clients", KivStringHelper::FromInt(shown.clients));
    line("questions", KivStringHelper::FromInt64(shown.questions));
    for (const double load : shown.processor_loads) {
        line("processor", fixed(load, 6));
    }
    if (shown.memory) {
        line("memory",
             std::to_string(shown.memory->used) + " " + std::to_string(shown.memory->amount));
    }
    for (const job_row& job : shown.jobs) {
        line("job", std::string(job.running ? "1" : "0") + separator + part(job.name) + separator +
                        part(job.state) + separator + part(job.command));
    }
    return text;
}

std::string agent::percent_text(double percent) {
    return fixed(percent, 1) + "%";
}

std::string agent::memory_text(const memory_use& memory) {
    constexpr double mib = 1024.0 * 1024.0;
    constexpr double gib = 1024.0 * mib;
    const bool is_large = static_cast<double>(memory.amount) >= gib;
    const double unit = is_large ? gib : mib;
    return fixed(static_cast<double>(memory.used) / unit, 1) + " of " +
           fixed(static_cast<double>(memory.amount) / unit, 1) + (is_large ? " GiB" : " MiB");
}

agent::snapshot agent::snapshot_from(const std::string& text) {
    snapshot result;
    std::string_view rest = text;
    while (!rest.empty()) {
        std::string_view value = take_until(rest, '\n');
        const std::string_view name = take_until(value, ' ');
        if (name == "host") {
            result.host = value;
        } else if (name == "pid") {
            result.pid = number_from<int>(value);
        } else if (name == "uptime") {
            result.uptime_seconds = number_from<long>(value);
        } else if (name == "clients") {
            result.clients = number_from<int>(value);
        } else if (name == "questions") {
            result.questions = number_from<long long>(value);
        } else if (name == "processor") {
            result.processor_loads.push_back(load_from(value));
        } else if (name == "memory") {
            result.memory = memory_from(value);
        } else if (name == "job") {
            result.jobs.push_back(job_from(value));
        }
    }
    return result;
}
