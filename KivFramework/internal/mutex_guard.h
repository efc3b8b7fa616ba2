#pragma once

#include <pthread.h>

namespace KivFramework::internal {

/// Holds a mutex from construction to the end of the scope, thread cancellation included.
class mutex_guard {
public:
    explicit mutex_guard(pthread_mutex_t* mutex) : mutex_(mutex) { pthread_mutex_lock(mutex_); }
    ~mutex_guard() {
        if (mutex_ != nullptr) {
            pthread_mutex_unlock(mutex_);
        }
    }
    mutex_guard(const mutex_guard&) = delete;
    mutex_guard& operator=(const mutex_guard&) = delete;

    /// Unlocks before the end of the scope.
    void unlock() {
        pthread_mutex_unlock(mutex_);
        mutex_ = nullptr;
    }

    /// Gives the lock up without unlocking; for the places that leave it held on purpose.
    void release() { mutex_ = nullptr; }

private:
    pthread_mutex_t* mutex_;
};

} // namespace KivFramework::internal
