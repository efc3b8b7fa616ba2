#include "tests/support/child_process.h"

#include "KivFramework/internal/unique_fd.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using KivFramework::internal::unique_fd;

std::pair<unique_fd, unique_fd> make_pipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        ADD_FAILURE() << "no pipe can be made";
        return {};
    }
    return {unique_fd(ends[0]), unique_fd(ends[1])};
}

void write_all(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(descriptor, text.data(), text.size());
        if (written <= 0) {
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

// Reads until every writer has closed its end.
std::string read_all(int descriptor) {
    std::string text;
    std::array<char, 4096> buffer{};
    for (;;) {
        const ssize_t length = ::read(descriptor, buffer.data(), buffer.size());
        if (length <= 0) {
            return text;
        }
        text.append(buffer.data(), static_cast<std::size_t>(length));
    }
}

int wait_for(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    return status;
}

} // namespace

std::string kiv_test::report_of_child(const std::function<std::string()>& body) {
    auto [read_end, write_end] = make_pipe();
    const pid_t child = ::fork();
    if (child == 0) {
        read_end.reset();
        write_all(write_end.get(), body());
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    if (child == -1) {
        ADD_FAILURE() << "no child can be made";
        return {};
    }
    write_end.reset();
    std::string report = read_all(read_end.get());
    EXPECT_EQ(wait_for(child), 0) << "wait status of the child that reported: " << report;
    return report;
}

kiv_test::idle_child::idle_child(std::string_view name) {
    auto [read_end, write_end] = make_pipe();
    pid_ = ::fork();
    if (pid_ == 0) {
        // A test that crashes takes its children along.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (!name.empty()) {
            ::prctl(PR_SET_NAME, std::string(name).c_str());
        }
        read_end.reset();
        write_end.reset(); // the name stands: the parent goes on
        for (;;) {
            ::pause();
        }
    }
    if (pid_ == -1) {
        ADD_FAILURE() << "no child can be made";
        return;
    }
    write_end.reset();
    read_all(read_end.get());
}

kiv_test::idle_child::~idle_child() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        wait_for(pid_);
    }
}

void kiv_test::leave_descriptors(int count) {
    std::vector<unique_fd> free_numbers;
    rlimit limits{0, 0};
    for (int i = 0; i < count; ++i) {
        free_numbers.emplace_back(::dup(STDIN_FILENO));
        limits.rlim_cur = limits.rlim_max = static_cast<rlim_t>(free_numbers.back().get()) + 1;
    }
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limits), 0);
}
