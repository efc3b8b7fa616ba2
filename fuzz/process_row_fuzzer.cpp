// Parses lines of /proc/PID/stat. Whatever is accepted must be found in the input where the form
// of the line says.

#include "KivFramework/platform/linux/stat_line.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view line(reinterpret_cast<const char*>(data), size);
    const auto fields = KivFramework::platform::parse_stat_line(line);
    if (fields) {
        const std::string_view name = fields->name;
        const auto before = static_cast<std::size_t>(name.data() - line.data());
        const std::string_view after = line.substr(before + name.size());
        const bool in_place = line.substr(0, before).ends_with(" (") && after.starts_with(") ") &&
                              after.find(')', 1) == std::string_view::npos &&
                              line.substr(0, before).find('(') == before - 1;
        if (!in_place) {
            std::abort();
        }
    }
    return 0;
}
