#include "KivFramework/internal/read_fully.h"

#include <cerrno>

#include <unistd.h>

ssize_t KivFramework::internal::read_fully(int descriptor, void* data, std::size_t size) {
    std::size_t used = 0;
    while (used < size) {
        const ssize_t count = ::read(descriptor, static_cast<char*>(data) + used, size - used);
        if (count > 0) {
            used += static_cast<std::size_t>(count);
            continue;
        }
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count == -1 && used == 0) {
            return -1;
        }
        break;
    }
    return static_cast<ssize_t>(used);
}
