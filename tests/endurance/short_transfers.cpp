// Loaded before a program's libraries: its reads and writes move one byte at a time, from files,
// pipes and stream sockets, and after some thousands of those a few bytes, so that megabytes come
// to an end too. Datagrams stay whole, and so do transfers that the system refuses to do in parts,
// such as those of event counters.

#include "tests/endurance/own_program.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

// The C library's own functions, which are cancellation points as system calls alone are not.
template <typename function_type>
function_type* original(function_type* /*interposed*/, const char* name) {
    return reinterpret_cast<function_type*>(::dlsym(RTLD_NEXT, name));
}

const bool active = kiv_endurance::is_own_program();

constexpr unsigned int transfers_of_one_byte = 10'000;
constexpr unsigned int most_bytes = 251; // a prime, so that no size of a record fits into it
std::atomic<unsigned int> transfers = 0;

// How many bytes the next transfer moves at most.
std::size_t next_part() {
    const unsigned int number = transfers.fetch_add(1, std::memory_order_relaxed);
    return number < transfers_of_one_byte ? 1 : 1 + number % most_bytes;
}

bool moves_whole_messages(int descriptor) {
    int type = 0;
    socklen_t size = sizeof(type);
    const int error = errno;
    const bool is_socket = ::getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0;
    errno = error;
    return is_socket && type != SOCK_STREAM;
}

// Asks for a part where that can do.
template <typename transfer_type>
ssize_t transfer_part(std::size_t size, transfer_type move) {
    if (!active || size <= 1) {
        return move(size);
    }
    const int before = errno;
    const ssize_t moved = move(std::min(size, next_part()));
    if (moved == -1 && errno == EINVAL) {
        errno = before;
        return move(size);
    }
    return moved;
}

template <typename transfer_type>
ssize_t transfer(int descriptor, std::size_t size, transfer_type move) {
    if (active && size > 1 && moves_whole_messages(descriptor)) {
        return move(size);
    }
    return transfer_part(size, move);
}

template <typename function_type>
ssize_t transfer_parts(function_type* move, int descriptor, const iovec* parts, int count) {
    int first = 0;
    while (first < count && parts[first].iov_len == 0) {
        ++first;
    }
    if (!active || first >= count || moves_whole_messages(descriptor)) {
        return move(descriptor, parts, count);
    }
    const iovec part{parts[first].iov_base, std::min(parts[first].iov_len, next_part())};
    return move(descriptor, &part, 1);
}

} // namespace

extern "C" {

ssize_t read(int descriptor, void* data, std::size_t size) {
    static auto* const move = original(&read, "read");
    return transfer(descriptor, size, [=](std::size_t n) { return move(descriptor, data, n); });
}

ssize_t write(int descriptor, const void* data, std::size_t size) {
    static auto* const move = original(&write, "write");
    return transfer(descriptor, size, [=](std::size_t n) { return move(descriptor, data, n); });
}

ssize_t pread(int descriptor, void* data, std::size_t size, off_t offset) {
    static auto* const move = original(&pread, "pread");
    return transfer_part(size, [=](std::size_t n) { return move(descriptor, data, n, offset); });
}

ssize_t pwrite(int descriptor, const void* data, std::size_t size, off_t offset) {
    static auto* const move = original(&pwrite, "pwrite");
    return transfer_part(size, [=](std::size_t n) { return move(descriptor, data, n, offset); });
}

ssize_t recv(int descriptor, void* data, std::size_t size, int flags) {
    static auto* const move = original(&recv, "recv");
    return transfer(descriptor, size,
                    [=](std::size_t n) { return move(descriptor, data, n, flags); });
}

ssize_t send(int descriptor, const void* data, std::size_t size, int flags) {
    static auto* const move = original(&send, "send");
    return transfer(descriptor, size,
                    [=](std::size_t n) { return move(descriptor, data, n, flags); });
}

ssize_t readv(int descriptor, const iovec* parts, int count) {
    static auto* const move = original(&readv, "readv");
    return transfer_parts(move, descriptor, parts, count);
}

ssize_t writev(int descriptor, const iovec* parts, int count) {
    static auto* const move = original(&writev, "writev");
    return transfer_parts(move, descriptor, parts, count);
}

} // extern "C"
