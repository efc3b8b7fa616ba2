#include "tests/support/no_new_threads.h"

#include <atomic>
#include <cerrno>

#include <dlfcn.h>
#include <pthread.h>

namespace {

std::atomic<bool> forbidden = false;

} // namespace

// The program's own definition goes before the C library's, for the library under test as well.
// NOLINTNEXTLINE: the name and the signature are the C library's
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument) noexcept {
    if (forbidden) {
        return EAGAIN;
    }
    static const auto real =
        reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
    return real(thread, attributes, start, argument);
}

kiv_test::no_new_threads::no_new_threads() {
    forbidden = true;
}

kiv_test::no_new_threads::~no_new_threads() {
    forbidden = false;
}
