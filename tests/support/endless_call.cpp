#include "tests/support/endless_call.h"

#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <new>
#include <string>

#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::atomic<int>* signals_seen = nullptr; // shared with the child

void count_signal(int /*signal*/) {
    ++*signals_seen;
}

// The number of the system call that a process waits in; -1 while it runs or when it is gone.
long waiting_call_of(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/syscall");
    long number = -1;
    return file >> number ? number : -1;
}

bool waits_for_a_signal(pid_t pid) {
    return kiv_test::wait_until([pid] {
               siginfo_t info{};
               const bool ended = ::waitid(P_PID, static_cast<id_t>(pid), &info,
                                           WEXITED | WNOHANG | WNOWAIT) != 0 ||
                                  info.si_pid == pid;
               const long call = waiting_call_of(pid);
#ifdef SYS_pause
               return ended || call == SYS_pause || call == SYS_ppoll;
#else
               return ended || call == SYS_ppoll;
#endif
           }) &&
           waiting_call_of(pid) >= 0;
}

} // namespace

bool kiv_test::waits_for_ever(const std::function<void()>& call) {
    void* page = ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) {
        ADD_FAILURE() << "no shared memory";
        return false;
    }
    signals_seen = new (page) std::atomic<int>(0);

    const pid_t child = ::fork();
    if (child == 0) {
        ::signal(SIGUSR1, count_signal);
        call();
        ::_exit(0);
    }
    bool waits = child != -1 && waits_for_a_signal(child);
    if (waits) {
        ::kill(child, SIGUSR1);
        waits = wait_until([] { return *signals_seen == 1; }) && waits_for_a_signal(child);
    }
    if (child != -1) {
        ::kill(child, SIGKILL);
        int status = 0;
        while (::waitpid(child, &status, 0) == -1 && errno == EINTR) {
        }
        waits = waits && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    }
    ::munmap(page, sizeof(std::atomic<int>));
    return waits;
}
