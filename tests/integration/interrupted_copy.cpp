// Loaded before a program's libraries: a signal ends the first copy from file to file that the
// program asks the system for, before any of it is done.

#include <cerrno>
#include <cstddef>

#include <dlfcn.h>
#include <sys/types.h>

extern "C" ssize_t sendfile(int to, int from, off_t* offset, std::size_t size) noexcept {
    static bool interrupted = false;
    if (!interrupted) {
        interrupted = true;
        errno = EINTR;
        return -1;
    }
    static auto* const original =
        reinterpret_cast<decltype(&sendfile)>(::dlsym(RTLD_NEXT, "sendfile"));
    return original(to, from, offset, size);
}
