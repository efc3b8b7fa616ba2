#pragma once

#include <pthread.h>

namespace KivFramework::internal {

/// Puts cancellation of the calling thread off to the end of the scope.
class cancellation_guard {
public:
    cancellation_guard() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
    ~cancellation_guard() { pthread_setcancelstate(before_, nullptr); }
    cancellation_guard(const cancellation_guard&) = delete;
    cancellation_guard& operator=(const cancellation_guard&) = delete;

private:
    int before_ = PTHREAD_CANCEL_ENABLE;
};

} // namespace KivFramework::internal
