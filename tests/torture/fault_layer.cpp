#include "tests/torture/fault_layer.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <pthread.h>
#include <pwd.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KIV_SANITIZED 1
#else
#define KIV_SANITIZED 0
#endif

// Also called where nothing else may run: a child on its way to exec shares its parent's memory.
#define KIV_PLAIN __attribute__((no_sanitize("address", "thread", "undefined")))

using kiv_test::fallible;

namespace {

constexpr int nothing = -1;

std::atomic<int> failing_call = nothing;
std::atomic<long> calls = 0;
std::atomic<long> failures = 0;
std::atomic<long> blocks = 0;
kiv_test::fault plan{};
const char* redirected_path = nullptr;
const char* path_instead = nullptr;

// Counts a call and tells, with errno set, whether it fails.
KIV_PLAIN bool fails(fallible call) {
    if (failing_call.load(std::memory_order_acquire) != static_cast<int>(call)) {
        return false;
    }
    const long number = ++calls;
    if (number != plan.first && (!plan.for_ever || number < plan.first)) {
        return false;
    }
    ++failures;
    errno = plan.error;
    return true;
}

template <typename function>
function original(const char* name) {
    return reinterpret_cast<function>(::dlsym(RTLD_NEXT, name));
}

} // namespace

void kiv_test::arm(const fault& next) {
    plan = next;
    calls = 0;
    failures = 0;
    failing_call.store(static_cast<int>(next.call), std::memory_order_release);
}

long kiv_test::disarm() {
    failing_call = nothing;
    return failures;
}

void kiv_test::redirect_open(const char* path, const char* instead) {
    redirected_path = path;
    path_instead = instead;
}

const bool kiv_test::counts_blocks = KIV_SANITIZED == 0;

long kiv_test::live_blocks() {
    return blocks;
}

// Names, signatures and exception specifications are the C library's. NOLINTBEGIN
extern "C" {

#if KIV_SANITIZED == 0

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void __libc_free(void* block);

void* malloc(size_t size) noexcept {
    void* const block = fails(fallible::memory) ? nullptr : __libc_malloc(size);
    blocks += block != nullptr ? 1 : 0;
    return block;
}

void* calloc(size_t count, size_t size) noexcept {
    void* const block = fails(fallible::memory) ? nullptr : __libc_calloc(count, size);
    blocks += block != nullptr ? 1 : 0;
    return block;
}

void* realloc(void* block, size_t size) noexcept {
    if (fails(fallible::memory)) {
        return nullptr;
    }
    void* const moved = __libc_realloc(block, size);
    blocks += block == nullptr && moved != nullptr ? 1 : 0;
    blocks -= block != nullptr && size == 0 ? 1 : 0;
    return moved;
}

void* aligned_alloc(size_t alignment, size_t size) noexcept {
    static const auto system = original<decltype(&aligned_alloc)>("aligned_alloc");
    void* const block = fails(fallible::memory) ? nullptr : system(alignment, size);
    blocks += block != nullptr ? 1 : 0;
    return block;
}

int posix_memalign(void** block, size_t alignment, size_t size) noexcept {
    static const auto system = original<decltype(&posix_memalign)>("posix_memalign");
    const int error = fails(fallible::memory) ? plan.error : system(block, alignment, size);
    blocks += error == 0 && *block != nullptr ? 1 : 0;
    return error;
}

void free(void* block) noexcept {
    blocks -= block != nullptr ? 1 : 0;
    __libc_free(block);
}

#endif

int open(const char* path, int flags, ...) {
    static const auto system = original<int (*)(const char*, int, ...)>("open");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    if (redirected_path != nullptr && std::strcmp(path, redirected_path) == 0) {
        path = path_instead;
    }
    return fails(fallible::open) ? -1 : system(path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
    static const auto system = original<int (*)(int, const char*, int, ...)>("openat");
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return fails(fallible::open) ? -1 : system(directory, path, flags, mode);
}

FILE* fopen(const char* path, const char* mode) {
    static const auto system = original<decltype(&fopen)>("fopen");
    return fails(fallible::fopen) ? nullptr : system(path, mode);
}

DIR* opendir(const char* path) {
    static const auto system = original<decltype(&opendir)>("opendir");
    return fails(fallible::opendir) ? nullptr : system(path);
}

int pipe(int ends[2]) noexcept {
    static const auto system = original<decltype(&pipe)>("pipe");
    return fails(fallible::pipe) ? -1 : system(ends);
}

int pipe2(int ends[2], int flags) noexcept {
    static const auto system = original<decltype(&pipe2)>("pipe2");
    return fails(fallible::pipe) ? -1 : system(ends, flags);
}

pid_t fork() noexcept {
    static const auto system = original<decltype(&fork)>("fork");
    return fails(fallible::fork) ? -1 : system();
}

KIV_PLAIN int __clone(int (*function)(void*), void* stack, int flags, void* argument, ...) {
    static const auto system = original<decltype(&__clone)>("__clone");
    return fails(fallible::fork) ? -1 : system(function, stack, flags, argument);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept {
    static const auto system = original<decltype(&pthread_create)>("pthread_create");
    return fails(fallible::thread) ? plan.error : system(thread, attributes, start, argument);
}

ssize_t write(int descriptor, const void* bytes, size_t size) {
    static const auto system = original<decltype(&write)>("write");
    return fails(fallible::write) ? -1 : system(descriptor, bytes, size);
}

size_t fwrite_unlocked(const void* items, size_t size, size_t count, FILE* stream) {
    static const auto system = original<decltype(&fwrite_unlocked)>("fwrite_unlocked");
    return fails(fallible::write) ? 0 : system(items, size, count, stream);
}

ssize_t read(int descriptor, void* bytes, size_t size) {
    static const auto system = original<decltype(&read)>("read");
    return fails(fallible::read) ? -1 : system(descriptor, bytes, size);
}

ssize_t pread(int descriptor, void* bytes, size_t size, off_t offset) {
    static const auto system = original<decltype(&pread)>("pread");
    return fails(fallible::read) ? -1 : system(descriptor, bytes, size, offset);
}

ssize_t send(int socket, const void* bytes, size_t size, int flags) {
    static const auto system = original<decltype(&send)>("send");
    return fails(fallible::send) ? -1 : system(socket, bytes, size, flags);
}

ssize_t recv(int socket, void* bytes, size_t size, int flags) {
    static const auto system = original<decltype(&recv)>("recv");
    return fails(fallible::recv) ? -1 : system(socket, bytes, size, flags);
}

int rename(const char* from, const char* to) noexcept {
    static const auto system = original<decltype(&rename)>("rename");
    return fails(fallible::rename) ? -1 : system(from, to);
}

int epoll_create1(int flags) noexcept {
    static const auto system = original<decltype(&epoll_create1)>("epoll_create1");
    return fails(fallible::epoll_create) ? -1 : system(flags);
}

int epoll_pwait2(int queue, epoll_event* events, int count, const timespec* limit,
                 const sigset_t* mask) {
    static const auto system = original<decltype(&epoll_pwait2)>("epoll_pwait2");
    return fails(fallible::epoll_wait) ? -1 : system(queue, events, count, limit, mask);
}

// The library's own way to epoll_ctl, and that of its children to everything.
KIV_PLAIN long syscall(long number, ...) noexcept {
    static const auto system = original<decltype(&syscall)>("syscall");
    va_list arguments;
    va_start(arguments, number);
    long values[6];
    for (long& value : values) {
        value = va_arg(arguments, long);
    }
    va_end(arguments);
    if (number == SYS_epoll_ctl && values[1] != EPOLL_CTL_DEL && fails(fallible::epoll_add)) {
        return -1;
    }
    return system(number, values[0], values[1], values[2], values[3], values[4], values[5]);
}

int getpwnam_r(const char* name, passwd* record, char* texts, size_t size, passwd** found) {
    static const auto system = original<decltype(&getpwnam_r)>("getpwnam_r");
    if (fails(fallible::account)) {
        *found = nullptr;
        return plan.error;
    }
    return system(name, record, texts, size, found);
}

int getifaddrs(ifaddrs** list) noexcept {
    static const auto system = original<decltype(&getifaddrs)>("getifaddrs");
    return fails(fallible::interfaces) ? -1 : system(list);
}

} // extern "C"

#if KIV_SANITIZED == 1

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return fails(fallible::memory) ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void* operator new(std::size_t size) {
    void* const block = operator new(size, std::nothrow);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void* operator new[](std::size_t size) {
    return operator new(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return operator new(size, std::nothrow);
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}

void operator delete[](void* block) noexcept {
    std::free(block);
}

void operator delete[](void* block, std::size_t) noexcept {
    std::free(block);
}

#endif
// NOLINTEND
