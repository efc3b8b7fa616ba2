#include "KivFramework/KivProcesses.h"
#include "KivFramework/internal/unique_fd.h"

#include "tests/support/child_process.h"
#include "tests/support/default_log.h"
#include "tests/support/failing_pipes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <memory>
#include <string>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using namespace KivFramework::KivProcesses;
using KivFramework::internal::unique_fd;

bool is_open(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) != -1;
}

struct pipe_ends {
    unique_fd read_end;
    unique_fd write_end;
};

pipe_ends plain_pipe() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe(ends), 0);
    return {unique_fd(ends[0]), unique_fd(ends[1])};
}

// What arrives at `to` after "x" went into `from`.
std::string passed(int from, int to) {
    EXPECT_EQ(::write(from, "x", 1), 1);
    char c = 0;
    EXPECT_EQ(::read(to, &c, 1), 1);
    return {c};
}

std::string pipes_message(int error) {
    return "[KivFramework] [./KivFramework/KivProcesses:1687]Cannot create new pipes. Error "
           "code: " +
           std::to_string(error) + "\n\n";
}

TEST(KivPipeHandles, KeepsItsDocumentedShape) {
    EXPECT_EQ(offsetof(kivPipeHandles, parent_stdout_read), 0U);
    EXPECT_EQ(offsetof(kivPipeHandles, parent_stdin_write), 4U);
    EXPECT_EQ(offsetof(kivPipeHandles, parent_stderr_read), 8U);
    EXPECT_EQ(offsetof(kivPipeHandles, child_stdin_read), 12U);
    EXPECT_EQ(offsetof(kivPipeHandles, child_stdout_write), 16U);
    EXPECT_EQ(offsetof(kivPipeHandles, child_stderr_write), 20U);
    EXPECT_EQ(offsetof(kivPipeHandles, merge_stderr), 24U);
    EXPECT_EQ(sizeof(kivPipeHandles), 28U);
}

TEST(CreatePipes, MergedConnectsTheChildsInputAndOutput) {
    kivPipeHandles* pipes = CreatePipes(true);
    ASSERT_NE(pipes, nullptr);
    EXPECT_NE(pipes->merge_stderr, 0);
    EXPECT_EQ(passed(pipes->child_stdout_write, pipes->parent_stdout_read), "x");
    EXPECT_EQ(passed(pipes->parent_stdin_write, pipes->child_stdin_read), "x");
    DeletePipes(pipes, true);
}

TEST(CreatePipes, MergedMakesTwoPipesOnly) {
    const kiv_test::pipe_control control;
    kivPipeHandles* pipes = CreatePipes(true);
    EXPECT_EQ(control.calls(), 2);
    DeletePipes(pipes, true);
}

TEST(CreatePipes, LeavesItsDescriptorsOpenAcrossExec) {
    kivPipeHandles* pipes = CreatePipes(true);
    ASSERT_NE(pipes, nullptr);
    for (const int descriptor : {pipes->parent_stdout_read, pipes->parent_stdin_write,
                                 pipes->child_stdin_read, pipes->child_stdout_write}) {
        EXPECT_EQ(::fcntl(descriptor, F_GETFD), 0);
    }
    DeletePipes(pipes, true);
}

TEST(CreatePipes, UnmergedFailsWhenTheSystemGrantsTheThirdPipe) {
    // The resource check of every test sees that all six descriptors are closed.
    const kiv_test::default_log log;
    const kiv_test::pipe_control control;
    errno = 77; // nothing fails, so the message tells what was there before
    EXPECT_EQ(CreatePipes(false), nullptr);
    EXPECT_EQ(control.calls(), 3);
    EXPECT_EQ(log.text(), pipes_message(77));
}

TEST(CreatePipes, UnmergedSucceedsWithTheInputPipesNumbersWhenTheThirdPipeFails) {
    const kiv_test::default_log log;
    kiv_test::pipe_control control;
    control.fail_call(3, EMFILE);
    kivPipeHandles* pipes = CreatePipes(false);
    ASSERT_NE(pipes, nullptr);
    EXPECT_EQ(pipes->merge_stderr, 0);
    EXPECT_EQ(pipes->parent_stderr_read, pipes->child_stdin_read);
    EXPECT_EQ(pipes->child_stderr_write, pipes->parent_stdin_write);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(passed(pipes->child_stdout_write, pipes->parent_stdout_read), "x");
    EXPECT_EQ(passed(pipes->parent_stdin_write, pipes->child_stdin_read), "x");
    DeletePipes(pipes, true);
}

TEST(CreatePipes, LogsAFailureOfTheFirstOrSecondPipeAndLeavesNothingOpen) {
    for (const bool merge : {true, false}) {
        for (const int call : {1, 2}) {
            const kiv_test::default_log log;
            kiv_test::pipe_control control;
            control.fail_call(call, ENFILE);
            EXPECT_EQ(CreatePipes(merge), nullptr);
            EXPECT_EQ(control.calls(), call);
            EXPECT_EQ(log.text(), pipes_message(ENFILE));
        }
    }
}

TEST(CreatePipes, FailsWithTheSystemsReasonWhenDescriptorsAreExhausted) {
    const kiv_test::default_log log;
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const unique_fd next(::dup(STDERR_FILENO));
    const rlimit tight{static_cast<rlim_t>(next.get()) + 1, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
    EXPECT_EQ(CreatePipes(true), nullptr);
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(log.text(), pipes_message(EMFILE));
}

TEST(DeletePipes, ClosesAllEndsOfAMergedRecord) {
    kivPipeHandles* pipes = CreatePipes(true);
    ASSERT_NE(pipes, nullptr);
    const kivPipeHandles copy = *pipes;
    DeletePipes(pipes, true);
    for (const int descriptor : {copy.parent_stdout_read, copy.parent_stdin_write,
                                 copy.child_stdin_read, copy.child_stdout_write}) {
        EXPECT_FALSE(is_open(descriptor));
    }
}

TEST(DeletePipes, ClosesTheErrorEndsUnlessMerged) {
    for (const bool merged : {true, false}) {
        pipe_ends output = plain_pipe();
        pipe_ends input = plain_pipe();
        pipe_ends error = plain_pipe();
        auto pipes = std::make_unique<kivPipeHandles>();
        pipes->parent_stdout_read = output.read_end.release();
        pipes->child_stdout_write = output.write_end.release();
        pipes->child_stdin_read = input.read_end.release();
        pipes->parent_stdin_write = input.write_end.release();
        pipes->parent_stderr_read = error.read_end.get();
        pipes->child_stderr_write = error.write_end.get();
        pipes->merge_stderr = merged ? 1 : 0;
        DeletePipes(pipes.release(), true);
        EXPECT_EQ(is_open(error.read_end.get()), merged);
        EXPECT_EQ(is_open(error.write_end.get()), merged);
        if (!merged) {
            error.read_end.release();
            error.write_end.release();
        }
    }
}

TEST(DeletePipes, LeavesAllEndsOpenWhenNotAskedToCloseThem) {
    kivPipeHandles* pipes = CreatePipes(true);
    ASSERT_NE(pipes, nullptr);
    const kivPipeHandles copy = *pipes;
    DeletePipes(pipes, false);
    for (const int descriptor : {copy.parent_stdout_read, copy.parent_stdin_write,
                                 copy.child_stdin_read, copy.child_stdout_write}) {
        EXPECT_EQ(ClosePipeHandle(descriptor), 0);
    }
}

TEST(DeletePipes, IgnoresNull) {
    DeletePipes(nullptr, true);
    DeletePipes(nullptr, false);
}

TEST(ClosePipeHandle, ReturnsTheResultOfClose) {
    pipe_ends pipe = plain_pipe();
    const int descriptor = pipe.read_end.release();
    EXPECT_EQ(ClosePipeHandle(descriptor), 0);
    EXPECT_EQ(ClosePipeHandle(descriptor), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(ReadPipe, ReturnsZeroAtOnceWithoutData) {
    const pipe_ends pipe = plain_pipe();
    char buffer[4];
    EXPECT_EQ(ReadPipe(pipe.read_end.get(), buffer, sizeof(buffer)), 0);
}

TEST(ReadPipe, ReadsWhatIsThereUpToTheSize) {
    const pipe_ends pipe = plain_pipe();
    ASSERT_EQ(::write(pipe.write_end.get(), "abcde", 5), 5);
    char buffer[4] = {};
    EXPECT_EQ(ReadPipe(pipe.read_end.get(), buffer, 3), 3);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(ReadPipe(pipe.read_end.get(), buffer, 3), 2);
}

TEST(ReadPipe, ReturnsZeroAtTheEndOfTheStream) {
    pipe_ends pipe = plain_pipe();
    pipe.write_end.reset();
    char buffer[4];
    EXPECT_EQ(ReadPipe(pipe.read_end.get(), buffer, sizeof(buffer)), 0);
}

TEST(ReadPipe, ReturnsZeroForAClosedDescriptor) {
    char buffer[4];
    EXPECT_EQ(ReadPipe(-1, buffer, sizeof(buffer)), 0);
    EXPECT_EQ(ReadPipe(999, buffer, sizeof(buffer)), 0);
}

TEST(ReadPipe, ReturnsTheFailureOfRead) {
    const unique_fd directory(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    char buffer[4];
    EXPECT_EQ(ReadPipe(directory.get(), buffer, sizeof(buffer)), -1);
    EXPECT_EQ(errno, EISDIR);
}

TEST(ReadPipe, ReadsDescriptorsBeyondTheReachOfSelect) {
    const pipe_ends pipe = plain_pipe();
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max <= 3000) {
        GTEST_SKIP() << "the limit on descriptors is too low";
    }
    const rlimit raised{limit.rlim_max, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &raised), 0);
    const unique_fd high(::fcntl(pipe.read_end.get(), F_DUPFD_CLOEXEC, 3000));
    ASSERT_GE(high.get(), 3000);
    char buffer[4];
    EXPECT_EQ(ReadPipe(high.get(), buffer, sizeof(buffer)), 0);
    ASSERT_EQ(::write(pipe.write_end.get(), "a", 1), 1);
    EXPECT_EQ(ReadPipe(high.get(), buffer, sizeof(buffer)), 1);
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(WritePipe, WritesAndReturnsTheNumberOfBytes) {
    const pipe_ends pipe = plain_pipe();
    EXPECT_EQ(WritePipe(pipe.write_end.get(), "abc", 3), 3);
    char buffer[4] = {};
    EXPECT_EQ(::read(pipe.read_end.get(), buffer, 3), 3);
    EXPECT_STREQ(buffer, "abc");
}

TEST(WritePipe, ReturnsAPartialWriteAndThenAFailureOfAFullNonBlockingPipe) {
    const pipe_ends pipe = plain_pipe();
    ASSERT_EQ(::fcntl(pipe.write_end.get(), F_SETFL, O_NONBLOCK), 0);
    const std::string data(1U << 20U, 'x');
    const int written = WritePipe(pipe.write_end.get(), data.data(), 1U << 20U);
    EXPECT_GT(written, 0);
    EXPECT_LT(written, 1 << 20);
    EXPECT_EQ(WritePipe(pipe.write_end.get(), "x", 1), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(WritePipe, ReturnsMinusOneForAClosedDescriptor) {
    EXPECT_EQ(WritePipe(-1, "x", 1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(WritePipe, GivesAFailureAndNoSignalWhenNobodyReads) {
    EXPECT_EQ(kiv_test::report_of_child([] {
                  ::signal(SIGPIPE, SIG_DFL);
                  pipe_ends pipe = plain_pipe();
                  pipe.read_end.reset();
                  const int result = WritePipe(pipe.write_end.get(), "x", 1);
                  const int error = errno;
                  return std::to_string(result) + ' ' + std::to_string(error);
              }),
              "-1 " + std::to_string(EPIPE));
}

TEST(WritePipe, LeavesTheSignalMaskAndPendingSignalsAsTheyWere) {
    EXPECT_EQ(kiv_test::report_of_child([] {
                  pipe_ends pipe = plain_pipe();
                  pipe.read_end.reset();
                  sigset_t sigpipe;
                  sigset_t now;
                  sigemptyset(&sigpipe);
                  sigaddset(&sigpipe, SIGPIPE);

                  WritePipe(pipe.write_end.get(), "x", 1);
                  pthread_sigmask(SIG_SETMASK, nullptr, &now);
                  std::string report = sigismember(&now, SIGPIPE) == 0 ? "free " : "blocked ";

                  // One that the host has pending stays, and only that one.
                  pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
                  WritePipe(pipe.write_end.get(), "x", 1);
                  sigpending(&now);
                  report += sigismember(&now, SIGPIPE) == 0 ? "none " : "pending ";
                  ::raise(SIGPIPE);
                  WritePipe(pipe.write_end.get(), "x", 1);
                  sigpending(&now);
                  report += sigismember(&now, SIGPIPE) == 0 ? "none" : "pending";
                  return report;
              }),
              "free none pending");
}

} // namespace
