#include "tests/torture/torture.h"

#include "tests/support/pipe_ends.h"
#include "tests/support/transfers.h"
#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace kiv_test {

const way_to_fail no_memory{"memory", fallible::memory, ENOMEM};
const way_to_fail no_open{"open", fallible::open, EMFILE};
const way_to_fail no_fopen{"fopen", fallible::fopen, EMFILE};
const way_to_fail no_opendir{"opendir", fallible::opendir, EMFILE};
const way_to_fail no_pipe{"pipe", fallible::pipe, EMFILE};
const way_to_fail no_fork{"fork", fallible::fork, EAGAIN};
const way_to_fail no_thread{"pthread_create", fallible::thread, EAGAIN};
const way_to_fail no_write{"write", fallible::write, ENOSPC};
const way_to_fail no_read{"read", fallible::read, EIO};
const way_to_fail send_refused{"send (EAGAIN)", fallible::send, EAGAIN};
const way_to_fail send_broken{"send (ECONNRESET)", fallible::send, ECONNRESET};
const way_to_fail recv_empty{"recv (EAGAIN)", fallible::recv, EAGAIN};
const way_to_fail recv_broken{"recv (ECONNRESET)", fallible::recv, ECONNRESET};
const way_to_fail no_rename{"rename", fallible::rename, EACCES};
const way_to_fail no_queue{"epoll_create1", fallible::epoll_create, EMFILE};
const way_to_fail no_watch{"epoll_ctl", fallible::epoll_add, ENOMEM};
const way_to_fail wait_interrupted{"epoll_wait", fallible::epoll_wait, EINTR};
const way_to_fail no_account{"getpwnam_r", fallible::account, EIO};
const way_to_fail no_interfaces{"getifaddrs", fallible::interfaces, EMFILE};

namespace {

// Every run is a process, and one with this sanitizer takes long to make; it is there to watch the
// threads, which a part of the points keeps busy.
#if defined(__SANITIZE_THREAD__)
constexpr long step = 7;
#else
constexpr long step = 1;
#endif

// A run that gets stuck is ended by its own alarm.
constexpr unsigned int seconds_for_a_run = 60;

int open_descriptors() {
    constexpr int highest_looked_at = 256;
    int count = 0;
    for (int descriptor = 0; descriptor < highest_looked_at; ++descriptor) {
        count += ::fcntl(descriptor, F_GETFD) != -1 ? 1 : 0;
    }
    return count;
}

bool has_children() {
    siginfo_t info{};
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
}

struct run_report {
    int status = 0; // as from waitpid
    long failures = 0;
    long blocks = 0; // more than before
    std::string problem;
};

// One attempt from beginning to end.
std::string attempt_once(scenario& tortured, const fault* planned, const way_to_fail& way,
                         long& failures) {
    tortured.prepare();
    const int descriptors = open_descriptors();
    bool threw = false;
    if (planned != nullptr) {
        arm(*planned);
    }
    try {
        tortured.attempt();
    } catch (const std::bad_alloc&) {
        threw = true;
    }
    failures = planned != nullptr ? disarm() : 0;
    std::string problem;
    if (failures != 0) {
        problem = tortured.fault_in({way, planned->first, planned->for_ever, threw});
        if (threw && way.call != fallible::memory) {
            problem += "; it threw";
        }
    } else {
        problem = threw ? "memory ran out by itself" : tortured.flaw();
    }
    if (open_descriptors() != descriptors) {
        problem += "; it changed the number of open descriptors";
    }
#if !defined(__SANITIZE_THREAD__)
    if (!wait_until(is_single_threaded, std::chrono::seconds(5))) {
        problem += "; it left a thread";
    }
#endif
    tortured.finish();
    if (has_children()) {
        problem += "; it left a child";
    }
    return problem;
}

// What a run does in its own process: an attempt with the fault, then one without.
run_report two_attempts(scenario& tortured, const fault* planned, const way_to_fail& way) {
    run_report report;
    const long blocks_before = live_blocks();
    report.problem = attempt_once(tortured, planned, way, report.failures);
    long none = 0;
    const std::string second = attempt_once(tortured, nullptr, way, none);
    if (!second.empty()) {
        report.problem += "; the next attempt: " + second;
    }
    report.blocks = live_blocks() - blocks_before;
#if defined(__SANITIZE_ADDRESS__)
    if (report.failures != 0 && __lsan_do_recoverable_leak_check() != 0) {
        report.problem += "; it leaked memory";
    }
#endif
    return report;
}

void write_report(int descriptor, const run_report& report) {
    std::ostringstream text;
    text << report.failures << ' ' << report.blocks << ' ' << report.problem;
    const std::string bytes = text.str();
    write_fully(descriptor, bytes.data(), bytes.size());
}

run_report read_report(int descriptor) {
    run_report report;
    std::istringstream text(read_to_end(descriptor));
    if (!(text >> report.failures >> report.blocks)) {
        report.problem = "no report";
    }
    text.get();
    std::string problem;
    std::getline(text, problem, '\0');
    report.problem += problem;
    return report;
}

run_report run(scenario& tortured, const fault* planned, const way_to_fail& way) {
    pipe_ends ends = make_pipe();
    const pid_t child = ::fork();
    if (child == 0) {
        ends.read.reset();
        ::alarm(seconds_for_a_run);
        write_report(ends.write.get(), two_attempts(tortured, planned, way));
        ::_exit(0);
    }
    ends.write.reset();
    run_report report = read_report(ends.read.get());
    wait_for_child(child, &report.status);
    return report;
}

// Expects what any failure must leave behind; returns whether there was one at all.
bool expect_survival(scenario& tortured, const fault& planned, const way_to_fail& way,
                     long blocks) {
    const run_report report = run(tortured, &planned, way);
    if (way.call == fallible::fork && report.status != 0) {
        // Without a process to start, the library ends the host with this status by contract.
        EXPECT_EQ(WEXITSTATUS(report.status), 1);
        EXPECT_FALSE(WIFSIGNALED(report.status));
        return true;
    }
    EXPECT_EQ(report.status, 0) << "the host's wait status";
    EXPECT_EQ(report.problem, "");
    if (counts_blocks && report.status == 0) {
        EXPECT_LE(report.blocks, blocks) << "more blocks of memory than without a failure";
    }
    return report.failures != 0 || report.status != 0;
}

} // namespace
} // namespace kiv_test

// Called before the test starts a thread. NOLINTBEGIN(concurrency-mt-unsafe)
void kiv_test::use_small_environment() {
    ::clearenv();
    ::setenv("PATH", "/usr/bin:/bin:/and/one/that/is/too/long/for/a/small/string", 1);
}
// NOLINTEND(concurrency-mt-unsafe)

bool kiv_test::is_single_threaded() {
    struct stat tasks {};
    return ::stat("/proc/self/task", &tasks) == 0 && tasks.st_nlink == 3;
}

void kiv_test::torture(scenario& tortured) {
    // Without a fault: what an attempt leaves in caches is no leak.
    const run_report plain = run(tortured, nullptr, no_memory);
    ASSERT_EQ(plain.problem, "");
    ASSERT_EQ(plain.status, 0);
    for (const way_to_fail& way : tortured.ways()) {
        long points = 0;
        for (const bool for_ever : {false, true}) {
            for (long number = 1;; number += step) {
                SCOPED_TRACE(std::string(tortured.name()) + ": " + way.name + " number " +
                             std::to_string(number) + (for_ever ? " and all later ones" : "") +
                             " fails");
                if (!expect_survival(tortured, {way.call, way.error, number, for_ever}, way,
                                     plain.blocks)) {
                    break;
                }
                ++points;
                if (testing::Test::HasFatalFailure()) {
                    return;
                }
            }
        }
        std::printf("torture: %s %s %ld points\n", tortured.name(), way.name, points);
        EXPECT_GT(points, 0) << way.name << " is never called";
    }
}
