#include "tests/support/stepped_wait.h"

#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <ctime>

#include <dlfcn.h>
#include <pthread.h>

namespace {

std::atomic<bool> stepped = false;
std::atomic<bool> waiting = false;
std::atomic<bool> time_passed = false;
// What the thread waits on; set while it does.
std::atomic<pthread_cond_t*> waited_on = nullptr;
std::atomic<pthread_mutex_t*> waiting_with = nullptr;

bool waits_for_time() {
    return waiting && !time_passed;
}

} // namespace

// The program's own definition goes before the C library's, for the library under test as well.
extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                      clockid_t clock, const timespec* deadline) {
    if (!stepped) {
        static const auto real = reinterpret_cast<decltype(&pthread_cond_clockwait)>(
            ::dlsym(RTLD_NEXT, "pthread_cond_clockwait"));
        return real(condition, mutex, clock, deadline);
    }
    waited_on = condition;
    waiting_with = mutex;
    waiting = true;
    if (!time_passed) {
        pthread_cond_wait(condition, mutex);
    }
    waiting = false;
    return time_passed.exchange(false) ? ETIMEDOUT : 0;
}

kiv_test::stepped_wait::stepped_wait() {
    stepped = true;
}

kiv_test::stepped_wait::~stepped_wait() {
    stepped = false;
}

void kiv_test::stepped_wait::await() {
    EXPECT_TRUE(wait_until(waits_for_time));
}

void kiv_test::stepped_wait::step() {
    await();
    pthread_mutex_lock(waiting_with);
    time_passed = true;
    pthread_cond_broadcast(waited_on);
    pthread_mutex_unlock(waiting_with);
    await();
}

pthread_mutex_t* kiv_test::stepped_wait::mutex() {
    return waiting_with;
}
