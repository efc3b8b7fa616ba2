// Loaded before a program's libraries: interrupts it 1,000 times a second, without SA_RESTART.

#include "tests/endurance/own_program.h"

#include <csignal>

#include <sys/time.h>

namespace {

extern "C" void interrupt(int /*signal*/) {}

[[gnu::constructor]] void start() {
    if (!kiv_endurance::is_own_program()) {
        return;
    }
    struct sigaction action {};
    action.sa_handler = interrupt;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGALRM, &action, nullptr);
    constexpr timeval millisecond{0, 1000};
    const itimerval timer{millisecond, millisecond};
    ::setitimer(ITIMER_REAL, &timer, nullptr);
}

} // namespace
