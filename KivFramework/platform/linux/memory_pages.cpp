#include "KivFramework/platform/memory_pages.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <string_view>
#include <system_error>

#include <unistd.h>

namespace KivFramework::platform {
namespace {

constexpr unsigned long long bytes_per_kilobyte = 1024;

struct labelled_count {
    std::string_view label;
    unsigned long long* count = nullptr;
    bool found = false;
};

// Parses the number of "   1234 kB".
std::optional<unsigned long long> parse_kilobytes(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    unsigned long long kilobytes = 0;
    const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), kilobytes);
    const std::string_view unit(rest, static_cast<std::size_t>(text.data() + text.size() - rest));
    return error == std::errc() && unit == " kB" ? std::optional(kilobytes) : std::nullopt;
}

} // namespace
} // namespace KivFramework::platform

using namespace KivFramework;

platform::memory_pages_reader::memory_pages_reader() : memory_pages_reader("/proc/meminfo") {}

platform::memory_pages_reader::memory_pages_reader(const char* path) : file_(path) {}

std::optional<platform::memory_pages> platform::memory_pages_reader::read() {
    memory_pages pages;
    pages.page_size = static_cast<unsigned long long>(::sysconf(_SC_PAGESIZE));
    std::array<labelled_count, 3> counts{
        {{"MemFree:", &pages.free}, {"Active:", &pages.active}, {"Inactive:", &pages.inactive}}};

    internal::reread_file::reading reading(file_);
    std::size_t missing = counts.size();
    while (missing > 0) {
        const auto line = reading.next_line();
        if (!line) {
            return std::nullopt;
        }
        for (labelled_count& count : counts) {
            if (count.found || !line->starts_with(count.label)) {
                continue;
            }
            const auto kilobytes = parse_kilobytes(line->substr(count.label.size()));
            if (!kilobytes) {
                return std::nullopt;
            }
            *count.count = *kilobytes * bytes_per_kilobyte / pages.page_size;
            count.found = true;
            --missing;
        }
    }
    return pages;
}
