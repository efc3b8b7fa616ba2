// Loaded before a program's libraries: its wall clock, in whole seconds, is ahead of the system's
// by the number in the file that KIV_CLOCK_FILE names.

#include <array>
#include <cstdlib>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

namespace {

long seconds_ahead() {
    // Nothing here changes the environment. NOLINTNEXTLINE(concurrency-mt-unsafe)
    const char* const path = std::getenv("KIV_CLOCK_FILE");
    const int file = path == nullptr ? -1 : ::open(path, O_RDONLY | O_CLOEXEC);
    std::array<char, 32> text{};
    if (file != -1) {
        const ssize_t size = ::read(file, text.data(), text.size() - 1);
        ::close(file);
        if (size <= 0) {
            return 0;
        }
    }
    return std::strtol(text.data(), nullptr, 10);
}

} // namespace

extern "C" std::time_t time(std::time_t* result) noexcept { // NOLINT: the name is the C library's
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const std::time_t shown = now.tv_sec + seconds_ahead();
    if (result != nullptr) {
        *result = shown;
    }
    return shown;
}
