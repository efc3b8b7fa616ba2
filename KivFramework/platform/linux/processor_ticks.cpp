#include "KivFramework/platform/processor_ticks.h"

#include <charconv>
#include <string_view>
#include <system_error>

namespace KivFramework::platform {
namespace {

constexpr std::string_view label = "cpu";

// Takes a number off the front of `line`, with the spaces before it.
template <typename number_type>
bool take_number(std::string_view& line, number_type& number) {
    const std::size_t start = line.find_first_not_of(' ');
    if (start == std::string_view::npos) {
        return false;
    }
    line.remove_prefix(start);
    const auto [rest, error] = std::from_chars(line.data(), line.data() + line.size(), number);
    line.remove_prefix(static_cast<std::size_t>(rest - line.data()));
    return error == std::errc();
}

// Parses "cpu3 user nice system idle ...".
bool parse_ticks(std::string_view line, processor_ticks& ticks) {
    line.remove_prefix(label.size());
    processor_ticks parsed;
    long nice = 0; // read to get past it
    if (!take_number(line, parsed.processor) || !take_number(line, parsed.user) ||
        !take_number(line, nice) || !take_number(line, parsed.system) ||
        !take_number(line, parsed.idle)) {
        return false;
    }
    ticks = parsed;
    return true;
}

} // namespace
} // namespace KivFramework::platform

using namespace KivFramework;

platform::processor_ticks_reader::processor_ticks_reader() : processor_ticks_reader("/proc/stat") {}

platform::processor_ticks_reader::processor_ticks_reader(const char* path) : file_(path) {}

std::size_t platform::processor_ticks_reader::read(std::span<processor_ticks> ticks,
                                                   std::size_t first) {
    internal::reread_file::reading reading(file_);
    reading.next_line(); // the sum of all processors
    std::size_t filled = 0;
    for (std::size_t position = 0; filled < ticks.size(); ++position) {
        const auto line = reading.next_line();
        if (!line || !line->starts_with(label)) {
            break;
        }
        if (position < first) {
            continue;
        }
        if (!parse_ticks(*line, ticks[filled])) {
            break;
        }
        ++filled;
    }
    return filled;
}
