#include "KivFramework/platform/processors.h"

#include <unistd.h>

std::optional<int> KivFramework::platform::processors_online() {
    const long count = ::sysconf(_SC_NPROCESSORS_ONLN);
    if (count < 1) {
        return std::nullopt;
    }
    return static_cast<int>(count);
}
