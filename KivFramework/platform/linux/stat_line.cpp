#include "KivFramework/platform/linux/stat_line.h"

#include <charconv>
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
    const std::size_t name_end = line.rfind(')');
    if (name_end == std::string_view::npos) {
        return std::nullopt;
    }
    fields.name = line.substr(0, name_end);

    line.remove_prefix(name_end + 1);
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
