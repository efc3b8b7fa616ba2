#pragma once

#include <pthread.h>

namespace kiv_test {

/// While it lives, the time of a thread that waits on a condition until a moment of the monotonic
/// clock passes when the test says so; signals wake it as ever. For one such thread, which begins
/// to wait after this object is made and ends before it goes. A program that adds stepped_wait.cpp
/// has it.
class stepped_wait {
public:
    stepped_wait();
    ~stepped_wait();
    stepped_wait(const stepped_wait&) = delete;
    stepped_wait& operator=(const stepped_wait&) = delete;

    /// Returns when the thread waits.
    void await();

    /// Lets the time of the thread's wait pass and returns when it waits again.
    void step();

    /// The mutex that the thread waits with, free meanwhile.
    static pthread_mutex_t* mutex();
};

} // namespace kiv_test
