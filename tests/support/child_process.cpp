#include "tests/support/child_process.h"

#include "KivFramework/internal/unique_fd.h"

#include "tests/support/pipe_ends.h"
#include "tests/support/transfers.h"

#include <gtest/gtest.h>

#include <csignal>
#include <vector>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

int wait_for(pid_t pid) {
    int status = 0;
    kiv_test::wait_for_child(pid, &status);
    return status;
}

} // namespace

std::string kiv_test::report_of_child(const std::function<std::string()>& body) {
    pipe_ends report = make_pipe();
    const pid_t child = ::fork();
    if (child == 0) {
        report.read.reset();
        const std::string text = body();
        write_fully(report.write.get(), text.data(), text.size());
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    if (child == -1) {
        ADD_FAILURE() << "no child can be made";
        return {};
    }
    report.write.reset();
    std::string text = read_to_end(report.read.get());
    EXPECT_EQ(wait_for(child), 0) << "wait status of the child that reported: " << text;
    return text;
}

kiv_test::idle_child::idle_child(std::string_view name) {
    pipe_ends readiness = make_pipe();
    pid_ = ::fork();
    if (pid_ == 0) {
        // A test that crashes takes its children along.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (!name.empty()) {
            ::prctl(PR_SET_NAME, std::string(name).c_str());
        }
        readiness.read.reset();
        readiness.write.reset(); // the name stands: the parent goes on
        for (;;) {
            ::pause();
        }
    }
    if (pid_ == -1) {
        ADD_FAILURE() << "no child can be made";
        return;
    }
    readiness.write.reset();
    read_to_end(readiness.read.get());
}

kiv_test::idle_child::~idle_child() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        wait_for(pid_);
    }
}

void kiv_test::leave_descriptors(int count) {
    std::vector<KivFramework::internal::unique_fd> free_numbers;
    rlimit limits{0, 0};
    for (int i = 0; i < count; ++i) {
        free_numbers.emplace_back(::open("/dev/null", O_RDONLY));
        limits.rlim_cur = limits.rlim_max = static_cast<rlim_t>(free_numbers.back().get()) + 1;
    }
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limits), 0);
}
