#pragma once

#include <array>
#include <cerrno>
#include <cstddef>
#include <string>

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kiv_test {

/// Makes a call until no signal interrupts it.
template <typename call_type>
auto uninterrupted(call_type call) -> decltype(call()) {
    auto result = call();
    while (result == -1 && errno == EINTR) {
        result = call();
    }
    return result;
}

/// As `waitpid`, whatever signals arrive meanwhile.
inline pid_t wait_for_child(pid_t pid, int* status = nullptr, int options = 0) {
    return uninterrupted([=] { return ::waitpid(pid, status, options); });
}

/// Reads until `size` bytes have come, every writer has closed its end or an error says that there
/// is no more. Returns how many came.
inline std::size_t read_fully(int descriptor, void* data, std::size_t size) {
    std::size_t used = 0;
    while (used < size) {
        const ssize_t length = uninterrupted(
            [&] { return ::read(descriptor, static_cast<char*>(data) + used, size - used); });
        if (length <= 0) {
            break;
        }
        used += static_cast<std::size_t>(length);
    }
    return used;
}

/// Reads until every writer has closed its end.
inline std::string read_to_end(int descriptor) {
    std::string text;
    std::array<char, 4096> buffer{};
    for (;;) {
        const ssize_t length =
            uninterrupted([&] { return ::read(descriptor, buffer.data(), buffer.size()); });
        if (length <= 0) {
            return text;
        }
        text.append(buffer.data(), static_cast<std::size_t>(length));
    }
}

/// Writes all of the bytes; false when that fails.
inline bool write_fully(int descriptor, const void* data, std::size_t size) {
    std::size_t used = 0;
    while (used < size) {
        const ssize_t length = uninterrupted([&] {
            return ::write(descriptor, static_cast<const char*>(data) + used, size - used);
        });
        if (length <= 0) {
            return false;
        }
        used += static_cast<std::size_t>(length);
    }
    return true;
}

} // namespace kiv_test
