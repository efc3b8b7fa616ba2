#include "KivFramework/platform/linux/stat_line.h"

#include <charconv>
#include <cstring>
#include <system_error>

namespace KivFramework::platform {
namespace {

// Takes a number off the front of `text`.
bool take_number(std::string_view& text, int& number) {
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    text.remove_prefix(static_cast<std::size_t>(rest - text.data()));
    return error == std::errc();
}

} // namespace
} // namespace KivFramework::platform

using namespace KivFramework;

std::optional<platform::stat_fields> platform::parse_stat_line(std::string_view line) {
    stat_fields fields;
    if (!take_number(line, fields.pid) || !line.starts_with(" (")) {
        return std::nullopt;
    }
    line.remove_prefix(2);
    // Several times as fast as rfind, which takes one byte at a time.
    const void* const name_end = ::memrchr(line.data(), ')', line.size());
    if (name_end == nullptr) {
        return std::nullopt;
    }
    const auto name_length =
        static_cast<std::size_t>(static_cast<const char*>(name_end) - line.data());
    fields.name = line.substr(0, name_length);

    line.remove_prefix(name_length + 1);
    // The state is one letter between two spaces.
    if (line.size() < 3 || line[0] != ' ' || line[2] != ' ') {
        return std::nullopt;
    }
    line.remove_prefix(3);
    if (!take_number(line, fields.ppid)) {
        return std::nullopt;
    }
    return fields;
}
