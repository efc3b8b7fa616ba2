#pragma once

namespace kiv_test {

/// Makes the time of a thread that waits on a condition until a moment of the monotonic clock pass
/// when the test says so; signals wake it as ever. For programs that stepped_wait.cpp is linked
/// into, and for one such thread.
class stepped_wait {
public:
    /// Returns when the thread waits.
    static void await();

    /// Lets the time of the thread's wait pass and returns when it waits again.
    static void step();
};

} // namespace kiv_test
