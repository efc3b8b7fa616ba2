#include "KivFramework/KivMemoryManager.h"
#include "KivFramework/KivServices.h"

#include "tests/support/child_process.h"
#include "tests/support/standard_streams.h"
#include "tests/support/transfers.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include <dlfcn.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace KivFramework;
using namespace KivFramework::KivServices;
using kiv_test::report_of_child;

namespace {

bool fork_fails = false;

// What the session manager's library says in this test.
enum class library { missing, without_functions, present };
struct console_state {
    library systemd = library::present;
    int active_result = 0; // of the question for the active session
    uid_t user = 0;
    const char* session_class = "user"; // null for a session that is gone meanwhile
};
console_state console;

// Holds a state of the console for a scope.
class console_scope {
public:
    explicit console_scope(const console_state& state) { console = state; }
    ~console_scope() { console = console_state(); }
    console_scope(const console_scope&) = delete;
    console_scope& operator=(const console_scope&) = delete;
};

template <typename function_type>
function_type* next_function(const char* name) {
    return reinterpret_cast<function_type*>(::dlsym(RTLD_NEXT, name));
}

} // namespace

// These stand before the system's own, for the library too.
extern "C" pid_t fork() noexcept {
    if (fork_fails) {
        errno = EAGAIN;
        return -1;
    }
    return next_function<pid_t()>("fork")();
}
extern "C" void* dlopen(const char* file, int mode) noexcept {
    const auto open = next_function<void*(const char*, int)>("dlopen");
    if (file == nullptr || std::string_view(file) != "libsystemd.so.0") {
        return open(file, mode);
    }
    switch (console.systemd) {
    case library::missing:
        return nullptr;
    case library::without_functions:
        return open("libc.so.6", mode);
    case library::present:
        break;
    }
    return open(nullptr, mode); // the functions below are exported from the program itself
}
extern "C" __attribute__((visibility("default"))) int
sd_seat_get_active(const char* seat, char** session, uid_t* user) {
    EXPECT_STREQ(seat, "seat0");
    if (console.active_result < 0) {
        return console.active_result;
    }
    *session = ::strdup("c1");
    *user = console.user;
    return console.active_result;
}
extern "C" __attribute__((visibility("default"))) int sd_session_get_class(const char* session,
                                                                           char** session_class) {
    EXPECT_STREQ(session, "c1");
    if (console.session_class == nullptr) {
        return -ENXIO;
    }
    *session_class = ::strdup(console.session_class);
    return 0;
}

namespace {

// What a daemon is and has, as it sees itself.
std::string daemon_report(bool result) {
    std::string report = result ? "true" : "false";
    report += ::getsid(0) == ::getpid() ? ", leads its session" : ", in a session of another";
    char directory[256] = "";
    report += std::string(", in ") + ::getcwd(directory, sizeof(directory));
    report += ", mask " + std::to_string(::umask(0));
    for (int descriptor = 0; descriptor < 3; ++descriptor) {
        report += ::fcntl(descriptor, F_GETFD) == -1 && errno == EBADF ? ", closed" : ", open";
    }
    report += ", next";
    for (int i = 0; i < 3; ++i) {
        report += " " + std::to_string(::open("/dev/null", O_RDWR));
    }
    return report;
}

// Lets a child of the test become a daemon and gives the daemon's report and the status with which
// the child itself ended.
class daemon_run {
public:
    /// `prepare` runs in the child before it asks to be a daemon; it gets the report's descriptor.
    template <typename function_type>
    daemon_run(int exit_code, const function_type& prepare) {
        ::prctl(PR_SET_CHILD_SUBREAPER, 1); // the daemon is handed to the test when its parent ends
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        const pid_t child = ::fork();
        if (child == 0) {
            ::close(ends[0]);
            ends[1] = ::fcntl(ends[1], F_DUPFD, 3); // where a daemon closes it not
            prepare(ends[1]);
            const std::string text = daemon_report(ForkAndDaemon(exit_code));
            ::_exit(kiv_test::write_fully(ends[1], text.data(), text.size()) ? 0 : 1);
        }
        ::close(ends[1]);
        kiv_test::wait_for_child(child, &status_);
        report_ = kiv_test::read_to_end(ends[0]);
        ::close(ends[0]);
        while (kiv_test::wait_for_child(-1) > 0) {
        }
        ::prctl(PR_SET_CHILD_SUBREAPER, 0);
    }

    const std::string& report() const { return report_; }
    int status() const { return status_; }

private:
    std::string report_;
    int status_ = 0;
};

TEST(ForkAndDaemon, LeavesTheTerminalTheDirectoryTheMaskAndTheStandardDescriptors) {
    const daemon_run run(0, [](int) { ::umask(077); });
    EXPECT_EQ(run.report(),
              "true, leads its session, in /, mask 0, closed, closed, closed, next 0 1 2");
}

TEST(ForkAndDaemon, EndsTheCallingProcessWithTheGivenStatus) {
    for (const int code : {0, 1, 7, 255}) {
        const daemon_run run(code, [](int) {});
        ASSERT_TRUE(WIFEXITED(run.status()));
        EXPECT_EQ(WEXITSTATUS(run.status()), code);
    }
}

int exit_handler_report = -1;

TEST(ForkAndDaemon, RunsNoExitHandlersAndFlushesNoBuffersInTheCallingProcess) {
    const daemon_run run(0, [](int report) {
        exit_handler_report = report;
        std::atexit([] {
            const ssize_t written = ::write(exit_handler_report, "handler ", 8);
            static_cast<void>(written);
        });
        std::FILE* file = ::fdopen(report, "w");
        std::fputs("buffer ", file);
    });
    EXPECT_EQ(run.report().find("handler"), std::string::npos) << run.report();
    EXPECT_EQ(run.report().find("buffer"), std::string::npos) << run.report();
}

TEST(ForkAndDaemon, ReturnsFalseAndChangesNothingWhenItCannotFork) {
    EXPECT_EQ(report_of_child([] {
                  const pid_t session = ::getsid(0);
                  const kiv_test::standard_streams_taken streams;
                  ::umask(027);
                  fork_fails = true;
                  const bool result = ForkAndDaemon(0);
                  const bool told = errno == EAGAIN;
                  char directory[512] = "";
                  const bool moved = ::getcwd(directory, sizeof(directory)) != nullptr &&
                                     std::string_view(directory) == "/";
                  return std::string(result ? "true" : "false") + (told ? ", told" : "") +
                         (session == ::getsid(0) ? ", same session" : "") +
                         (moved ? "" : ", same directory") +
                         (::umask(0) == 027 ? ", same mask" : "") +
                         (::fcntl(STDOUT_FILENO, F_GETFD) != -1 ? ", still open" : "");
              }),
              "false, told, same session, same directory, same mask, still open");
}

TEST(CopyCurrentConsoleUsername, NamesTheUserOfTheActiveSession) {
    const console_scope scope({.user = ::getuid()});
    char* name = CopyCurrentConsoleUsername();
    ASSERT_NE(name, nullptr);
    // The test has one thread.
    const passwd* account = ::getpwuid(::getuid()); // NOLINT(concurrency-mt-unsafe): see above
    ASSERT_NE(account, nullptr);
    EXPECT_EQ(std::string_view(name), account->pw_name);
    KivMemoryManager::ReleaseMemory(name, std::strlen(name) + 1);
}

TEST(CopyCurrentConsoleUsername, GivesATextThatFreeReleases) {
    std::free(CopyCurrentConsoleUsername());
}

TEST(CopyCurrentConsoleUsername, GivesEachCallATextOfItsOwn) {
    char* first = CopyCurrentConsoleUsername();
    char* second = CopyCurrentConsoleUsername();
    EXPECT_NE(first, second);
    KivMemoryManager::ReleaseMemory(first, 0);
    KivMemoryManager::ReleaseMemory(second, 0);
}

TEST(CopyCurrentConsoleUsername, IsNullWhenNoSessionIsActive) {
    for (const int error : {-ENODATA, -ENXIO, -EINVAL}) {
        const console_scope scope({.active_result = error});
        EXPECT_EQ(CopyCurrentConsoleUsername(), nullptr);
    }
}

TEST(CopyCurrentConsoleUsername, IsNullAtTheLoginScreen) {
    const console_scope scope({.session_class = "greeter"});
    EXPECT_EQ(CopyCurrentConsoleUsername(), nullptr);
}

TEST(CopyCurrentConsoleUsername, IsNullForASessionThatEndsMeanwhile) {
    const console_scope scope({.session_class = nullptr});
    EXPECT_EQ(CopyCurrentConsoleUsername(), nullptr);
}

TEST(CopyCurrentConsoleUsername, IsNullForAUserWithoutAnAccount) {
    const console_scope scope({.user = 4000000123U});
    EXPECT_EQ(CopyCurrentConsoleUsername(), nullptr);
}

TEST(CopyCurrentConsoleUsername, IsNullWithoutASessionManager) {
    const console_scope scope({.systemd = library::missing});
    EXPECT_EQ(CopyCurrentConsoleUsername(), nullptr);
}

TEST(CopyCurrentConsoleUsername, IsNullWithALibraryThatLacksTheFunctions) {
    const console_scope scope({.systemd = library::without_functions});
    EXPECT_EQ(CopyCurrentConsoleUsername(), nullptr);
}

TEST(IsSomeoneLogged, IsTrueAndWritesNothingWhenSomebodyIs) {
    int first = 17;
    int second = -4;
    EXPECT_TRUE(IsSomeoneLogged(&first, &second));
    EXPECT_EQ(first, 17);
    EXPECT_EQ(second, -4);
}

TEST(IsSomeoneLogged, IsTrueAndWritesNothingWhenNobodyIs) {
    int first = 17;
    int second = -4;
    for (const console_state& state :
         {console_state{.active_result = -ENODATA}, console_state{.systemd = library::missing}}) {
        const console_scope scope(state);
        EXPECT_TRUE(IsSomeoneLogged(&first, &second));
    }
    EXPECT_EQ(first, 17);
    EXPECT_EQ(second, -4);
}

TEST(IsSomeoneLogged, TakesNullPointers) {
    EXPECT_TRUE(IsSomeoneLogged(nullptr, nullptr));
}

} // namespace
