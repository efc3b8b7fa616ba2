#pragma once

#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace kiv_endurance {

/// Whether the running program lies below the directory that KIV_ENDURANCE_ROOT names.
///
/// The dynamic linker loads these objects into every program that a test starts; shells and other
/// tools of the system are to run as always.
inline bool is_own_program() {
    char path[4096];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
    // Nothing else runs yet in a constructor. NOLINTNEXTLINE(concurrency-mt-unsafe)
    const char* const root = std::getenv("KIV_ENDURANCE_ROOT");
    if (length <= 0 || root == nullptr) {
        return false;
    }
    path[length] = '\0';
    return std::strncmp(path, root, std::strlen(root)) == 0;
}

} // namespace kiv_endurance
