#include "KivFramework/platform/executable.h"

#include <array>
#include <climits>
#include <string_view>

#include <unistd.h>

std::string KivFramework::platform::executable_directory() {
    std::array<char, PATH_MAX> buffer;
    const ssize_t length = ::readlink("/proc/self/exe", buffer.data(), buffer.size());
    if (length <= 0) {
        return {};
    }
    const std::string_view path(buffer.data(), static_cast<std::size_t>(length));
    const std::size_t separator = path.rfind('/');
    if (separator == std::string_view::npos) {
        return {};
    }
    // An executable in the root directory keeps the root's only character.
    return std::string(path.substr(0, separator == 0 ? 1 : separator));
}
