#pragma once

#include <optional>
#include <string_view>

namespace KivFramework::platform {

/// The first fields of a line of `/proc/PID/stat`.
struct stat_fields {
    int pid = 0;
    std::string_view name; ///< a part of the parsed text
    int ppid = 0;
};

/// Parses "pid (name) state ppid ...". The name may hold any byte, parentheses and line feeds
/// too: it reaches from the first "(" to the last ")".
///
/// \returns nothing when the text has another form.
std::optional<stat_fields> parse_stat_line(std::string_view line);

} // namespace KivFramework::platform
