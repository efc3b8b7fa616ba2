#pragma once

#include <unistd.h>

namespace KivFramework::internal {

/// Never returns and uses no processor; only the end of the thread or process ends it.
[[noreturn]] inline void wait_for_ever() {
    for (;;) {
        ::pause(); // signals wake it up, which changes nothing
    }
}

} // namespace KivFramework::internal
