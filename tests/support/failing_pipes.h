#pragma once

#include <functional>

namespace kiv_test {

/// Control over the calls of `pipe` and `pipe2`, which the programs that link this replace by
/// their own. Each test starts from the plain behaviour by making one of these.
class pipe_control {
public:
    pipe_control();
    ~pipe_control();
    pipe_control(const pipe_control&) = delete;
    pipe_control& operator=(const pipe_control&) = delete;

    /// Makes the n-th call from now on fail with `error`.
    void fail_call(int n, int error);

    /// Runs after every call of `pipe2` that worked.
    void after_pipe2(std::function<void()> hook);

    /// How many calls of either kind there were.
    int calls() const;
};

} // namespace kiv_test
