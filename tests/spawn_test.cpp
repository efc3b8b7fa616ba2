#include "KivFramework/KivProcesses.h"
#include "KivFramework/internal/unique_fd.h"

#include "tests/support/child_process.h"
#include "tests/support/default_log.h"
#include "tests/support/failing_pipes.h"
#include "tests/support/standard_streams.h"
#include "tests/support/temp_directory.h"
#include "tests/support/transfers.h"
#include "tests/support/wait_until.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace KivFramework::KivProcesses;
using kiv_test::read_to_end;
using KivFramework::internal::unique_fd;

constexpr const char* child_program = KIV_SPAWNED_CHILD;
constexpr uid_t ordinary_user = 65534;

struct process_deleter {
    void operator()(kivProcess* process) const {
        TerminateProcess(process);
        CloseProcess(process);
    }
};
using owned_process = std::unique_ptr<kivProcess, process_deleter>;

// What a start answered. Both texts begin as values that no start gives.
struct start {
    owned_process process;
    int error_code = -7;
    std::string error_text = "untouched";
};

start spawn(const std::string& path, const std::string& arguments, kivPipeHandles* pipes = nullptr,
            const std::string& user = "", kivEnvironment* environment = nullptr) {
    start result;
    result.process.reset(SpawnProcess(path.c_str(), arguments.c_str(), "reserved", pipes,
                                      environment, result.error_code, result.error_text,
                                      user.c_str(), "secret"));
    return result;
}

long exit_code_of(const owned_process& process) {
    long code = -1;
    EXPECT_EQ(WaitProcess(process.get(), /*block=*/true, 0, code), 1);
    return code;
}

// Pipes whose ends are none of the standard streams: such an end is closed in the child.
kivPipeHandles* merged_pipes() {
    const kiv_test::standard_streams_taken taken;
    return CreatePipes(true);
}

// The output of a child that ends by itself.
std::string output_of(const std::string& path, const std::string& arguments,
                      const std::string& user = "", kivEnvironment* environment = nullptr) {
    kivPipeHandles* pipes = merged_pipes();
    if (pipes == nullptr) {
        ADD_FAILURE() << "no pipes";
        return {};
    }
    const start child = spawn(path, arguments, pipes, user, environment);
    EXPECT_NE(child.process, nullptr) << child.error_text;
    ClosePipeHandle(pipes->parent_stdin_write);
    std::string output = read_to_end(pipes->parent_stdout_read);
    ClosePipeHandle(pipes->parent_stdout_read);
    if (child.process == nullptr) {
        ClosePipeHandle(pipes->child_stdin_read);
        ClosePipeHandle(pipes->child_stdout_write);
    } else {
        exit_code_of(child.process);
    }
    DeletePipes(pipes, false);
    return output;
}

void expect_failed_start(const start& child, int code) {
    EXPECT_EQ(child.process, nullptr);
    EXPECT_EQ(child.error_code, code);
    EXPECT_EQ(child.error_text, std::system_category().message(code));
}

void expect_refused_identity(const start& child, const std::string& text) {
    EXPECT_EQ(child.process, nullptr);
    EXPECT_EQ(child.error_code, 0);
    EXPECT_EQ(child.error_text, text);
}

void become_ordinary_user() {
    if (::getuid() == 0) {
        EXPECT_EQ(::setgid(ordinary_user), 0);
        EXPECT_EQ(::setuid(ordinary_user), 0);
    }
}

std::string own_user_name() {
    const passwd* user = ::getpwuid(::getuid()); // NOLINT(concurrency-mt-unsafe): one thread
    return user != nullptr ? user->pw_name : "";
}

// Makes a file with these bytes and permissions.
std::string make_file(const kiv_test::temp_directory& directory, const std::string& name,
                      const std::string& bytes, mode_t mode) {
    std::string path = directory.file(name);
    kiv_test::write_file(path, bytes);
    EXPECT_EQ(::chmod(path.c_str(), mode), 0);
    return path;
}

// The wait status of a forked child that runs `body` and then ends with status 99.
int status_of_child(const std::function<void()>& body) {
    const pid_t child = ::fork();
    if (child == 0) {
        body();
        ::_exit(99);
    }
    int status = -1;
    kiv_test::wait_for_child(child, &status);
    return status;
}

TEST(KivProcess, KeepsItsDocumentedShape) {
    EXPECT_EQ(offsetof(kivProcess, pid), 0U);
    EXPECT_EQ(sizeof(kivProcess), 4U);
}

TEST(SpawnProcess, GivesTheChildThePathAndTheParsedArguments) {
    EXPECT_EQ(output_of(child_program, R"(arguments "two words" "" a\"b  c)"),
              "[" + std::string(child_program) + "]\n[arguments]\n[two words]\n[]\n[a\"b]\n[c]\n");
}

TEST(SpawnProcess, QuotesAPathWithASpaceSoThatItStaysOneArgument) {
    const kiv_test::temp_directory directory;
    const std::string path = directory.file("a child");
    std::filesystem::create_symlink(child_program, path);
    EXPECT_EQ(output_of(path, "arguments x"), "[" + path + "]\n[arguments]\n[x]\n");
}

TEST(SpawnProcess, SearchesNoDirectories) {
    expect_failed_start(spawn("true", ""), ENOENT);
}

TEST(SpawnProcess, TakesNullTextsForEmptyOnes) {
    start child;
    child.process.reset(SpawnProcess("/bin/true", nullptr, nullptr, nullptr, nullptr,
                                     child.error_code, child.error_text, nullptr, nullptr));
    ASSERT_NE(child.process, nullptr);
    EXPECT_EQ(exit_code_of(child.process), 0);
    child.process.reset(SpawnProcess(nullptr, nullptr, nullptr, nullptr, nullptr, child.error_code,
                                     child.error_text, nullptr, nullptr));
    expect_failed_start(child, ENOENT);
}

TEST(SpawnProcess, LeavesTheErrorArgumentsAloneOnSuccess) {
    const start child = spawn("/bin/true", "");
    ASSERT_NE(child.process, nullptr);
    EXPECT_EQ(child.error_code, -7);
    EXPECT_EQ(child.error_text, "untouched");
}

TEST(SpawnProcess, HandsTheCallersEnvironmentOnWithoutABlock) {
    // No other thread runs in this test. NOLINTNEXTLINE(concurrency-mt-unsafe): see above
    ::setenv("KIV_TEST_INHERITED", "present value", 1);
    EXPECT_THAT(output_of(child_program, "environment"),
                testing::HasSubstr("[KIV_TEST_INHERITED=present value]\n"));
    ::unsetenv("KIV_TEST_INHERITED"); // NOLINT(concurrency-mt-unsafe): see above
    EXPECT_THAT(output_of(child_program, "environment"),
                testing::Not(testing::HasSubstr("KIV_TEST_INHERITED")));
}

TEST(SpawnProcess, GivesTheChildOfACallerWithoutAnEnvironmentNone) {
    char** const environment = std::exchange(::environ, nullptr);
    EXPECT_EQ(output_of(child_program, "environment"), "");
    ::environ = environment;
}

TEST(SpawnProcess, GivesTheChildExactlyTheVariablesOfTheBlock) {
    kivEnvironment* block = CreateEnvironment(false);
    SetEnvironmentValue(block, "B", "two words");
    SetEnvironmentValue(block, "A", "");
    EXPECT_EQ(output_of(child_program, "environment", "", block), "[A=]\n[B=two words]\n");
}

TEST(SpawnProcess, GivesTheChildNoVariablesOfAnEmptyBlock) {
    EXPECT_EQ(output_of(child_program, "environment", "", CreateEnvironment(false)), "");
}

// A block that is not destroyed is a leak, which the address sanitizer reports.
TEST(SpawnProcess, DestroysTheBlockOfAFailedStartToo) {
    expect_failed_start(spawn("/kiv/none", "", nullptr, "", CreateEnvironment(true)), ENOENT);
    expect_refused_identity(
        spawn("/bin/true", "", nullptr, "kiv-no-such-user", CreateEnvironment(true)),
        "Unable to impersonate user kiv-no-such-user");
    kiv_test::pipe_control control;
    control.fail_call(1, EMFILE);
    EXPECT_EQ(spawn("/bin/true", "", nullptr, "", CreateEnvironment(true)).process, nullptr);
}

TEST(SpawnProcess, ConnectsTheChildsInputAndOutput) {
    kivPipeHandles* pipes = merged_pipes();
    ASSERT_NE(pipes, nullptr);
    const start child = spawn(child_program, "copy", pipes);
    ASSERT_NE(child.process, nullptr);
    const std::string text = "there and back";
    for (std::size_t used = 0; used < text.size();) {
        const int written = WritePipe(pipes->parent_stdin_write, text.data() + used,
                                      static_cast<unsigned int>(text.size() - used));
        ASSERT_GT(written, 0);
        used += static_cast<std::size_t>(written);
    }
    ClosePipeHandle(pipes->parent_stdin_write);
    EXPECT_EQ(read_to_end(pipes->parent_stdout_read), text);
    EXPECT_EQ(exit_code_of(child.process), 0);
    ClosePipeHandle(pipes->parent_stdout_read);
    DeletePipes(pipes, false);
}

TEST(SpawnProcess, SendsTheErrorStreamIntoTheOutputPipeWhenMerged) {
    EXPECT_EQ(output_of(child_program, "both"), "output\nerror\n");
}

TEST(SpawnProcess, KeepsTheStreamsOfSelfMadePipesApart) {
    int input[2];
    int output[2];
    int error[2];
    const kiv_test::standard_streams_taken taken;
    ASSERT_EQ(::pipe(input), 0);
    ASSERT_EQ(::pipe(output), 0);
    ASSERT_EQ(::pipe(error), 0);
    kivPipeHandles pipes;
    pipes.child_stdin_read = input[0];
    pipes.parent_stdin_write = input[1];
    pipes.parent_stdout_read = output[0];
    pipes.child_stdout_write = output[1];
    pipes.parent_stderr_read = error[0];
    pipes.child_stderr_write = error[1];
    const start child = spawn(child_program, "both", &pipes);
    ASSERT_NE(child.process, nullptr);
    EXPECT_EQ(read_to_end(output[0]), "output\n");
    EXPECT_EQ(read_to_end(error[0]), "error\n");
    for (const int descriptor : {input[1], output[0], error[0]}) {
        EXPECT_EQ(ClosePipeHandle(descriptor), 0);
    }
}

TEST(SpawnProcess, ClosesTheChildsEndsInTheCallerAndKeepsTheRecordsNumbers) {
    kivPipeHandles* pipes = merged_pipes();
    ASSERT_NE(pipes, nullptr);
    const kivPipeHandles before = *pipes;
    const start child = spawn("/bin/true", "", pipes);
    EXPECT_EQ(std::memcmp(pipes, &before, sizeof(before)), 0);
    EXPECT_EQ(ClosePipeHandle(pipes->child_stdin_read), -1);
    EXPECT_EQ(ClosePipeHandle(pipes->child_stdout_write), -1);
    EXPECT_EQ(ClosePipeHandle(pipes->parent_stdin_write), 0);
    EXPECT_EQ(ClosePipeHandle(pipes->parent_stdout_read), 0);
    DeletePipes(pipes, false);
}

TEST(DeletePipes, ClosesWhatTookTheNumbersOfTheChildsEndsAfterASpawn) {
    kivPipeHandles* pipes = merged_pipes();
    ASSERT_NE(pipes, nullptr);
    const kivPipeHandles numbers = *pipes;
    const start child = spawn("/bin/true", "", pipes);
    ASSERT_NE(child.process, nullptr);
    for (const int number : {numbers.child_stdin_read, numbers.child_stdout_write}) {
        ASSERT_EQ(::dup2(numbers.parent_stdin_write, number), number);
    }
    DeletePipes(pipes, true);
    for (const int number : {numbers.child_stdin_read, numbers.child_stdout_write,
                             numbers.parent_stdout_read, numbers.parent_stdin_write}) {
        EXPECT_EQ(::fcntl(number, F_GETFD), -1);
    }
    EXPECT_EQ(exit_code_of(child.process), 0);
}

TEST(SpawnProcess, ClosesTheChildsEndsAfterAFailedStartToo) {
    kivPipeHandles* pipes = merged_pipes();
    ASSERT_NE(pipes, nullptr);
    expect_failed_start(spawn("/kiv/none", "", pipes), ENOENT);
    EXPECT_EQ(ClosePipeHandle(pipes->child_stdin_read), -1);
    EXPECT_EQ(ClosePipeHandle(pipes->child_stdout_write), -1);
    EXPECT_EQ(ClosePipeHandle(pipes->parent_stdin_write), 0);
    EXPECT_EQ(ClosePipeHandle(pipes->parent_stdout_read), 0);
    DeletePipes(pipes, false);
}

TEST(SpawnProcess, LeavesTheChildItsStandardStreamsAndInheritedDescriptorsOnly) {
    const unique_fd inherited(::fcntl(STDERR_FILENO, F_DUPFD, 50));
    const unique_fd kept_back(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 60));
    std::string expected = "0 1 2 ";
    // What the test runner left open without close-on-exec is inherited as well.
    for (int descriptor = 3; descriptor < 100; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) == 0) {
            expected += std::to_string(descriptor) + ' ';
        }
    }
    EXPECT_EQ(output_of(child_program, "descriptors"), expected + '\n');
}

TEST(SpawnProcess, ReportsAMissingProgram) {
    const start child = spawn("/kiv/none", "");
    expect_failed_start(child, ENOENT);
    EXPECT_EQ(child.error_code, 2);
    EXPECT_EQ(child.error_text, "No such file or directory");
}

TEST(SpawnProcess, ReportsAnEmptyPath) {
    expect_failed_start(spawn("", "x"), ENOENT);
    expect_failed_start(spawn("", ""), ENOENT);
}

TEST(SpawnProcess, ReportsADirectoryAsProgram) {
    expect_failed_start(spawn("/tmp", ""), EACCES);
}

TEST(SpawnProcess, ReportsAFileThatMayNotBeExecuted) {
    const kiv_test::temp_directory directory;
    expect_failed_start(spawn(make_file(directory, "plain", "#!/bin/sh\n", 0644), ""), EACCES);
}

TEST(SpawnProcess, ReportsAFileThatIsNoProgramAndTriesNoShell) {
    const kiv_test::temp_directory directory;
    expect_failed_start(spawn(make_file(directory, "text", "exit 0\n", 0755), ""), ENOEXEC);
}

TEST(SpawnProcess, ReportsAMissingInterpreter) {
    const kiv_test::temp_directory directory;
    expect_failed_start(spawn(make_file(directory, "script", "#!/kiv/none\n", 0755), ""), ENOENT);
}

TEST(SpawnProcess, ReportsArgumentsThatAreTooLong) {
    expect_failed_start(spawn("/bin/true", std::string(1U << 20U, 'x')), E2BIG);
}

TEST(SpawnProcess, ReportsAUserThatDoesNotExist) {
    expect_refused_identity(spawn("/bin/true", "", nullptr, "kiv-no-such-user"),
                            "Unable to impersonate user kiv-no-such-user");
}

TEST(SpawnProcess, RefusesTheIdentityBeforeItLooksForTheProgram) {
    expect_refused_identity(spawn("/kiv/none", "", nullptr, "kiv-no-such-user"),
                            "Unable to impersonate user kiv-no-such-user");
}

TEST(SpawnProcess, CutsTheReportOfARefusedIdentityAtAHundredBytes) {
    expect_refused_identity(spawn("/bin/true", "", nullptr, std::string(200, 'u')),
                            "Unable to impersonate user " + std::string(73, 'u'));
}

TEST(SpawnProcess, ReportsAnIdentityThatAnOrdinaryUserMayNotTake) {
    EXPECT_EQ(kiv_test::report_of_child([] {
                  become_ordinary_user();
                  const start child = spawn("/bin/true", "", nullptr, "root");
                  return std::to_string(child.error_code) + ' ' + child.error_text;
              }),
              "0 Unable to impersonate user root");
}

TEST(SpawnProcess, LetsAnOrdinaryUserTakeItsOwnIdentity) {
    EXPECT_EQ(kiv_test::report_of_child([] {
                  become_ordinary_user();
                  return output_of("/usr/bin/id", "-u", own_user_name());
              }),
              std::to_string(::getuid() == 0 ? ordinary_user : ::getuid()) + "\n");
}

TEST(SpawnProcess, RunsTheChildAsTheUserForGood) {
    if (::getuid() != 0) {
        GTEST_SKIP() << "only root may switch";
    }
    const passwd* user = ::getpwnam("nobody"); // NOLINT(concurrency-mt-unsafe): one thread
    ASSERT_NE(user, nullptr);
    const std::string uid = std::to_string(user->pw_uid);
    const std::string gid = std::to_string(user->pw_gid);
    EXPECT_EQ(output_of("/bin/sh", R"(-c "sed -n -e s/^Uid:.//p -e s/^Gid:.//p /proc/self/status")",
                        "nobody"),
              uid + '\t' + uid + '\t' + uid + '\t' + uid + '\n' + gid + '\t' + gid + '\t' + gid +
                  '\t' + gid + '\n');
}

TEST(SpawnProcess, LeavesTheCallersIdentityAlone) {
    if (::getuid() != 0) {
        GTEST_SKIP() << "only root may switch";
    }
    EXPECT_EQ(exit_code_of(spawn("/bin/true", "", nullptr, "nobody").process), 0);
    EXPECT_EQ(::getuid(), 0U);
    EXPECT_EQ(::geteuid(), 0U);
    EXPECT_EQ(::getgid(), 0U);
    EXPECT_EQ(::getegid(), 0U);
}

TEST(SpawnProcess, LeavesTheCallerAbleToDumpItsCore) {
    if (::getuid() != 0) {
        GTEST_SKIP() << "only root may switch";
    }
    for (const int dumpable : {1, 0}) {
        ASSERT_EQ(::prctl(PR_SET_DUMPABLE, dumpable), 0);
        EXPECT_EQ(exit_code_of(spawn("/bin/true", "", nullptr, "nobody").process), 0);
        EXPECT_EQ(::prctl(PR_GET_DUMPABLE), dumpable);
        expect_failed_start(spawn("/kiv/none", "", nullptr, "nobody"), ENOENT);
        EXPECT_EQ(::prctl(PR_GET_DUMPABLE), dumpable);
    }
    ASSERT_EQ(::prctl(PR_SET_DUMPABLE, 1), 0);
}

TEST(SpawnProcess, WorksForAnOrdinaryUser) {
    EXPECT_EQ(kiv_test::report_of_child([] {
                  become_ordinary_user();
                  std::string report = output_of("/bin/echo", "said");
                  const start child = spawn("/kiv/none", "");
                  return report + child.error_text;
              }),
              "said\nNo such file or directory");
}

TEST(SpawnProcess, CountsAsStartedWhenTheChildCannotArrangeItsDescriptors) {
    kivPipeHandles pipes; // all -1
    const start child = spawn("/bin/true", "", &pipes);
    ASSERT_NE(child.process, nullptr);
    EXPECT_EQ(child.error_code, -7);
    EXPECT_EQ(exit_code_of(child.process), 1);
}

TEST(SpawnProcess, EndsTheChildOfARecordWithDoubledErrorEnds) {
    // What CreatePipes gives when the third pipe cannot be made: one number is closed twice.
    kiv_test::pipe_control control;
    control.fail_call(3, EMFILE);
    kivPipeHandles* pipes = CreatePipes(false);
    ASSERT_NE(pipes, nullptr);
    const start child = spawn("/bin/true", "", pipes);
    ASSERT_NE(child.process, nullptr);
    EXPECT_EQ(exit_code_of(child.process), 1);
    ClosePipeHandle(pipes->parent_stdout_read);
    DeletePipes(pipes, false);
}

TEST(SpawnProcess, ClosesAStandardStreamThatWasAPipeEndAlready) {
    // The copies come first, then the ends are closed, so an end that is the stream itself goes.
    EXPECT_EQ(kiv_test::report_of_child([] {
                  const kiv_test::standard_streams_taken taken;
                  unique_fd out(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 10));
                  int output[2];
                  EXPECT_EQ(::pipe(output), 0);
                  kivPipeHandles pipes;
                  pipes.merge_stderr = 1;
                  pipes.child_stdin_read = ::dup2(out.get(), STDIN_FILENO);
                  pipes.parent_stdin_write = ::dup2(out.get(), 20);
                  pipes.parent_stdout_read = output[0];
                  pipes.child_stdout_write = output[1];
                  const start child = spawn(child_program, "descriptors", &pipes);
                  return read_to_end(output[0]).substr(0, 4);
              }),
              "1 2 ");
}

TEST(SpawnProcess, ReportsAFailureThoughTheHostHasNoStandardStreams) {
    // The status pipe's numbers are then those that the child's streams are copied to.
    EXPECT_EQ(kiv_test::report_of_child([] {
                  kivPipeHandles* pipes = merged_pipes();
                  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
                      ::close(stream);
                  }
                  const start child = spawn("/kiv/none", "", pipes);
                  return child.error_text;
              }),
              "No such file or directory");
}

TEST(SpawnProcess, GivesAChildItsStreamsThoughTheHostHasNone) {
    EXPECT_EQ(kiv_test::report_of_child([] {
                  kivPipeHandles* pipes = merged_pipes();
                  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
                      ::close(stream);
                  }
                  const start child = spawn(child_program, "both", pipes);
                  return read_to_end(pipes->parent_stdout_read);
              }),
              "output\nerror\n");
}

TEST(SpawnProcess, FailsAndLogsWhenItsOwnPipeCannotBeMade) {
    const kiv_test::default_log log;
    kiv_test::pipe_control control;
    control.fail_call(1, ENFILE);
    const start child = spawn("/bin/true", "");
    EXPECT_EQ(child.process, nullptr);
    EXPECT_EQ(child.error_code, -7);
    EXPECT_EQ(child.error_text, "untouched");
    EXPECT_EQ(log.text(), "[KivFramework] [./KivFramework/KivProcesses:909]Failure invoking "
                          "pipe(). Error code: " +
                              std::to_string(ENFILE) + "\n\n");
}

TEST(SpawnProcess, FailsWithoutALeakWhenDescriptorsAreExhausted) {
    const kiv_test::default_log log;
    kivPipeHandles* pipes = merged_pipes();
    ASSERT_NE(pipes, nullptr);
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    const unique_fd next(::dup(STDERR_FILENO));
    const rlimit tight{static_cast<rlim_t>(next.get()) + 2, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
    EXPECT_EQ(spawn("/bin/true", "", pipes).process, nullptr);
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_THAT(log.text(), testing::HasSubstr("909]Failure invoking pipe(). Error code: 24"));
    DeletePipes(pipes, true); // all ends are open still, as no child was made
}

TEST(SpawnProcess, EndsTheCallerWithStatusOneWhenNoProcessCanBeMade) {
    const kiv_test::default_log log;
    const int status = status_of_child([] {
        // A user of its own, so that the limit meets no process of anybody else.
        if (::getuid() == 0) {
            EXPECT_EQ(::setuid(54321), 0);
        }
        const rlimit none{0, 0};
        EXPECT_EQ(::setrlimit(RLIMIT_NPROC, &none), 0);
        spawn("/bin/true", "");
    });
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(log.text(), "[KivFramework] [./KivFramework/KivProcesses:924]Failure invoking "
                          "fork(). Error code: " +
                              std::to_string(EAGAIN) + "\n\n");
}

// The signals whose bit is set in a line of the child's report.
bool has_signal(const std::string& report, const std::string& mask, int signal) {
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(mask, 0) == 0) {
            return (std::strtoull(line.substr(mask.size()).c_str(), nullptr, 16) >>
                        static_cast<unsigned>(signal - 1) &
                    1U) != 0;
        }
    }
    ADD_FAILURE() << "no " << mask << " in " << report;
    return false;
}

TEST(SpawnProcess, GivesTheChildTheCallersSignalMaskAndIgnoredSignals) {
    sigset_t blocked;
    sigset_t before;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const auto handler = ::signal(SIGUSR2, SIG_IGN);
    const std::string report = output_of(child_program, "signals");
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, &before, &after);
    ::signal(SIGUSR2, handler);

    EXPECT_TRUE(has_signal(report, "SigBlk:", SIGUSR1));
    EXPECT_FALSE(has_signal(report, "SigBlk:", SIGUSR2));
    EXPECT_FALSE(has_signal(report, "SigBlk:", SIGTERM));
    EXPECT_TRUE(has_signal(report, "SigIgn:", SIGUSR2));
    EXPECT_FALSE(has_signal(report, "SigIgn:", SIGUSR1));
    EXPECT_EQ(sigismember(&after, SIGUSR1), 1);
    EXPECT_EQ(sigismember(&after, SIGTERM), 0);
}

std::atomic<bool> handled = false;
std::atomic<bool> handled_in_a_child = false;
pid_t handling_process = 0;

void note_handler(int /*signal*/) {
    (::getpid() == handling_process ? handled : handled_in_a_child) = true;
}

TEST(SpawnProcess, KeepsTheCallersSignalHandlers) {
    handling_process = ::getpid();
    const auto before = ::signal(SIGUSR1, note_handler);
    EXPECT_EQ(exit_code_of(spawn("/bin/true", "").process), 0);
    ::raise(SIGUSR1);
    EXPECT_TRUE(handled);
    EXPECT_EQ(::signal(SIGUSR1, before), note_handler);
}

TEST(SpawnProcess, RunsNoHandlerOfTheHostInTheChild) {
    // The child shares the caller's memory until its exec, so that a handler there would be seen.
    EXPECT_EQ(kiv_test::report_of_child([]() -> std::string {
                  constexpr int spawns = 200;
                  ::setpgid(0, 0);
                  handling_process = ::getpid();
                  ::signal(SIGUSR1, note_handler);
                  const pid_t sender = ::fork();
                  if (sender == 0) {
                      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
                      ::signal(SIGUSR1, SIG_IGN);
                      for (;;) {
                          ::kill(0, SIGUSR1);
                      }
                  }
                  for (int i = 0; i < spawns; ++i) {
                      spawn("/bin/true", "");
                      spawn("/kiv/none", "");
                  }
                  TerminateProcess(sender);
                  return handled && !handled_in_a_child ? "in the host alone" : "elsewhere";
              }),
              "in the host alone");
}

TEST(SpawnProcess, WaitsForNobodyWhoInheritedTheStatusPipeWithoutAnExec) {
    // As when another thread forks just then, and its child goes on as a process of the host.
    kiv_test::pipe_control control;
    pid_t holder = -1;
    control.after_pipe2([&holder] {
        holder = ::fork();
        while (holder == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::pause();
        }
    });
    for (const bool works : {true, false}) {
        const start child = spawn(works ? "/bin/true" : "/kiv/none", "");
        EXPECT_EQ(child.process != nullptr, works);
        TerminateProcess(holder);
    }
}

TEST(SpawnProcess, IsNoCancellationPoint) {
    std::atomic<bool> started = false;
    std::thread([&started] {
        pthread_cancel(pthread_self());
        expect_failed_start(spawn("/kiv/none", ""), ENOENT);
        const start child = spawn("/bin/true", "");
        int state_after = -1;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state_after);
        EXPECT_EQ(state_after, PTHREAD_CANCEL_ENABLE);
        started = child.process != nullptr && exit_code_of(child.process) == 0;
    }).join();
    EXPECT_TRUE(started);
}

TEST(SpawnProcess, LeavesNothingBehindOfAChildThatFloodsItsPipe) {
    kivPipeHandles* pipes = merged_pipes();
    ASSERT_NE(pipes, nullptr);
    const start child = spawn(child_program, "flood", pipes);
    ASSERT_NE(child.process, nullptr);
    char buffer[4096];
    std::size_t total = 0;
    EXPECT_TRUE(kiv_test::wait_until([&] {
        for (int length = 1; length > 0 && total <= (1U << 20U);) {
            length = ReadPipe(pipes->parent_stdout_read, buffer, sizeof(buffer));
            total += length > 0 ? static_cast<std::size_t>(length) : 0;
        }
        return total > (1U << 20U);
    }));
    // With the reading end closed the child meets a broken pipe.
    ClosePipeHandle(pipes->parent_stdout_read);
    EXPECT_EQ(exit_code_of(child.process), 0);
    ClosePipeHandle(pipes->parent_stdin_write);
    DeletePipes(pipes, false);
}

TEST(SpawnProcess, GivesTheEndOfTheStreamOfAChildThatClosesItsPipes) {
    kivPipeHandles* pipes = merged_pipes();
    ASSERT_NE(pipes, nullptr);
    const start child = spawn(child_program, "close", pipes);
    ASSERT_NE(child.process, nullptr);
    EXPECT_EQ(read_to_end(pipes->parent_stdout_read), "");
    EXPECT_EQ(WritePipe(pipes->parent_stdin_write, "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    long code = -1;
    EXPECT_EQ(WaitProcess(child.process.get(), false, 0, code), 0);
    TerminateProcess(child.process.get());
    ClosePipeHandle(pipes->parent_stdout_read);
    ClosePipeHandle(pipes->parent_stdin_write);
    DeletePipes(pipes, false);
}

TEST(WaitProcess, GivesZeroForARunningChildWithoutALimit) {
    const start child = spawn("/bin/sleep", "1000");
    long code = -7;
    EXPECT_EQ(WaitProcess(child.process.get(), false, 0, code), 0);
    EXPECT_EQ(code, -7);
}

TEST(WaitProcess, GivesOneAndTheExitCodeOfAnEndedChild) {
    const start blocking = spawn(child_program, "exit 3");
    long code = -7;
    EXPECT_EQ(WaitProcess(blocking.process.get(), true, 0, code), 1);
    EXPECT_EQ(code, 3);
    const start polling = spawn(child_program, "exit 255");
    EXPECT_EQ(WaitProcess(polling.process.get(), false, 60, code), 1);
    EXPECT_EQ(code, 255);
}

TEST(WaitProcess, GivesTwoWhenTheWholeSecondsHavePassed) {
    const start child = spawn("/bin/sleep", "1000");
    long code = -7;
    const std::time_t before = std::time(nullptr);
    EXPECT_EQ(WaitProcess(child.process.get(), false, 1, code), 2);
    EXPECT_GE(std::time(nullptr) - before, 1);
    EXPECT_EQ(code, -7);
}

TEST(WaitProcess, GivesTwoAtOnceForANegativeLimit) {
    const start child = spawn("/bin/sleep", "1000");
    long code = -7;
    EXPECT_EQ(WaitProcess(child.process.get(), false, -1, code), 2);
}

TEST(WaitProcess, GivesThreeForAChildThatIsReapedAlready) {
    const start child = spawn(child_program, "exit 3");
    long code = -7;
    EXPECT_EQ(WaitProcess(child.process.get(), true, 0, code), 1);
    code = -7;
    EXPECT_EQ(WaitProcess(child.process.get(), true, 0, code), 3);
    EXPECT_EQ(WaitProcess(child.process.get(), false, 0, code), 3);
    EXPECT_EQ(WaitProcess(child.process.get(), false, 5, code), 3);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(code, -7);
}

TEST(WaitProcess, GivesThreeForNull) {
    long code = -7;
    EXPECT_EQ(WaitProcess(nullptr, true, 0, code), 3);
    EXPECT_EQ(code, -7);
}

TEST(WaitProcess, GivesExitCodeZeroForAChildKilledByASignal) {
    for (const char* signal : {"9", "15", "11"}) {
        const start child = spawn(child_program, std::string("signal ") + signal);
        EXPECT_EQ(exit_code_of(child.process), 0) << signal;
    }
}

void do_nothing(int /*signal*/) {}

TEST(WaitProcess, GoesOnWaitingAfterASignal) {
    struct sigaction action {};
    action.sa_handler = do_nothing; // no SA_RESTART: the wait is interrupted
    struct sigaction before {};
    ::sigaction(SIGUSR1, &action, &before);

    kivPipeHandles* pipes = merged_pipes();
    ASSERT_NE(pipes, nullptr);
    const start child = spawn(child_program, "copy", pipes);
    const pthread_t waiter = pthread_self();
    std::thread disturber([&] {
        for (int i = 0; i < 100; ++i) {
            pthread_kill(waiter, SIGUSR1);
            std::this_thread::yield();
        }
        ClosePipeHandle(pipes->parent_stdin_write); // ends the child
    });
    EXPECT_EQ(exit_code_of(child.process), 0);
    disturber.join();
    ::sigaction(SIGUSR1, &before, nullptr);
    ClosePipeHandle(pipes->parent_stdout_read);
    DeletePipes(pipes, false);
}

TEST(TerminateProcess, KillsAndReapsARunningChild) {
    const start child = spawn("/bin/sleep", "1000");
    const int pid = GetProcessPid(child.process.get());
    TerminateProcess(pid);
    int status = 0;
    EXPECT_EQ(kiv_test::wait_for_child(pid, &status), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(::kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST(TerminateProcess, TakesTheRecordAndKeepsIt) {
    const start child = spawn("/bin/sleep", "1000");
    const int pid = GetProcessPid(child.process.get());
    TerminateProcess(child.process.get());
    EXPECT_EQ(GetProcessPid(child.process.get()), pid);
    long code = -7;
    EXPECT_EQ(WaitProcess(child.process.get(), true, 0, code), 3);
}

TEST(TerminateProcess, KillsAChildThatIsStopped) {
    const start child = spawn(child_program, "signal " + std::to_string(SIGSTOP));
    const int pid = GetProcessPid(child.process.get());
    int status = 0;
    ASSERT_EQ(kiv_test::wait_for_child(pid, &status, WUNTRACED), pid);
    TerminateProcess(pid);
    EXPECT_EQ(kiv_test::wait_for_child(pid, &status), -1);
}

TEST(TerminateProcess, OnlyReapsAChildThatHasEnded) {
    const start child = spawn(child_program, "exit 3");
    const int pid = GetProcessPid(child.process.get());
    siginfo_t info{};
    ASSERT_EQ(kiv_test::uninterrupted([&] {
                  return ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
              }),
              0);
    TerminateProcess(pid);
    int status = 0;
    EXPECT_EQ(kiv_test::wait_for_child(pid, &status), -1);
}

TEST(TerminateProcess, DoesNothingForAPidThatIsGone) {
    const start child = spawn("/bin/true", "");
    exit_code_of(child.process);
    TerminateProcess(GetProcessPid(child.process.get()));
}

TEST(TerminateProcess, DoesNothingForAPidOfZeroOrBelow) {
    // With these, kill would mean the whole group or every process.
    const int status = status_of_child([] {
        ::setpgid(0, 0);
        TerminateProcess(0);
        TerminateProcess(-::getpid());
        kivProcess nobody;
        TerminateProcess(&nobody);
        TerminateProcess(nullptr);
    });
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 99);
}

TEST(CloseProcess, FreesTheRecordAndIsAlwaysTrue) {
    auto* process = new kivProcess;
    EXPECT_TRUE(CloseProcess(process));
    EXPECT_TRUE(CloseProcess(nullptr));
}

TEST(GetProcessPid, IsTheRecordsPidAndZeroForNull) {
    kivProcess process;
    process.pid = 42;
    EXPECT_EQ(GetProcessPid(&process), 42);
    EXPECT_EQ(GetProcessPid(nullptr), 0);
}

TEST(GetCurrentProcessPid, IsTheCallers) {
    EXPECT_EQ(GetCurrentProcessPid(), ::getpid());
}

TEST(GetProcessPriority, ReadsTheClassOfEveryNiceValue) {
    const kiv_test::idle_child child;
    const bool may_raise = ::getuid() == 0;
    for (int nice = may_raise ? -20 : 0; nice <= 19; ++nice) {
        ASSERT_EQ(::setpriority(PRIO_PROCESS, static_cast<id_t>(child.pid()), nice), 0);
        const int expected = nice > 0 ? 1 : nice >= -4 ? 2 : nice >= -14 ? 3 : 4;
        EXPECT_EQ(GetProcessPriority(child.pid()), expected) << nice;
        EXPECT_EQ(errno, 0);
    }
}

TEST(GetProcessPriority, ReadsAProcessThatIsGoneAsNormal) {
    int gone = 0;
    {
        const kiv_test::idle_child child;
        gone = child.pid();
    }
    EXPECT_EQ(GetProcessPriority(gone), 2);
    EXPECT_EQ(errno, ESRCH);
}

TEST(SetProcessPriority, SetsTheNiceValueOfTheClass) {
    if (::getuid() != 0) {
        GTEST_SKIP() << "only root may raise priorities";
    }
    const kiv_test::idle_child child;
    const struct {
        int priority_class;
        int nice;
    } cases[] = {{1, 15}, {3, -5}, {2, 0}, {4, -15}, {7, 0}, {1, 15}, {0, 0}, {1, 15}, {-1, 0}};
    for (const auto& [priority_class, nice] : cases) {
        EXPECT_EQ(SetProcessPriority(child.pid(), priority_class), 0);
        EXPECT_EQ(::getpriority(PRIO_PROCESS, static_cast<id_t>(child.pid())), nice)
            << priority_class;
    }
}

TEST(SetProcessPriority, ReturnsTheFailureOfTheSystem) {
    EXPECT_EQ(kiv_test::report_of_child([] {
                  become_ordinary_user();
                  const int result = SetProcessPriority(0, 4);
                  const int error = errno;
                  return std::to_string(result) + ' ' + std::to_string(error);
              }),
              "-1 " + std::to_string(EACCES));
}

} // namespace
