#pragma once

#include <ctime>
#include <optional>
#include <string_view>

namespace KivFramework::internal {

/// A time in the time zone that TZ names now; nothing for a year that `std::tm` cannot hold.
std::optional<std::tm> local_time(std::time_t second);

/// A second of the wall clock in local time, with its text "MM/DD/YYYY HH:MM:SS".
struct local_second {
    std::tm time;
    std::string_view text;
};

/// The second that is now, in the time zone that TZ names now.
///
/// The conversion is made once per second, thread and time zone. The result belongs to the calling
/// thread and holds until its next call.
const local_second& local_now();

} // namespace KivFramework::internal
