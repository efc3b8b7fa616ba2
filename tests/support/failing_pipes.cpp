#include "tests/support/failing_pipes.h"

#include <atomic>
#include <cerrno>
#include <utility>

#include <sys/syscall.h>
#include <unistd.h>

namespace {

std::atomic<int> calls_made = 0; // threads may make pipes too
int failing_call = 0;
int failing_error = 0;
std::function<void()> pipe2_hook; // NOLINT(cert-err58-cpp): an empty function does not throw

int make_pipe(int* ends, int flags) {
    if (++calls_made == failing_call) {
        errno = failing_error;
        return -1;
    }
    return static_cast<int>(::syscall(SYS_pipe2, ends, flags));
}

} // namespace

// These stand before the C library's in every library of the program.
extern "C" int pipe(int ends[2]) noexcept {
    return make_pipe(ends, 0);
}

extern "C" int pipe2(int ends[2], int flags) noexcept {
    const int result = make_pipe(ends, flags);
    if (result == 0 && pipe2_hook) {
        pipe2_hook();
    }
    return result;
}

kiv_test::pipe_control::pipe_control() {
    calls_made = 0;
}

kiv_test::pipe_control::~pipe_control() {
    failing_call = 0;
    pipe2_hook = nullptr;
}

void kiv_test::pipe_control::fail_call(int n, int error) {
    failing_call = calls_made + n;
    failing_error = error;
}

void kiv_test::pipe_control::after_pipe2(std::function<void()> hook) {
    pipe2_hook = std::move(hook);
}

int kiv_test::pipe_control::calls() const {
    return calls_made;
}
