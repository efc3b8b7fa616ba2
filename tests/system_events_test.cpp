#include "KivFramework/KivProcesses.h"

#include "tests/support/child_process.h"
#include "tests/support/program.h"
#include "tests/support/temp_directory.h"
#include "tests/support/transfers.h"
#include "tests/support/wait_until.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace KivFramework::KivProcesses;
using kiv_test::program;
using kiv_test::temp_directory;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// No command reaches the shell of this program unless a test has made sure what it would run.
bool commands_are_safe = false;
std::vector<std::string> commands;

enum class library { missing, without_functions, present };
library systemd = library::present;

template <typename function_type>
function_type* next_function(const char* name) {
    return reinterpret_cast<function_type*>(::dlsym(RTLD_NEXT, name));
}

} // namespace

// These stand before the C library's, for the library too.
extern "C" int system(const char* command) {
    commands.emplace_back(command);
    return commands_are_safe ? next_function<int(const char*)>("system")(command) : 0;
}
extern "C" void* dlopen(const char* file, int mode) noexcept {
    const auto open = next_function<void*(const char*, int)>("dlopen");
    if (file == nullptr || std::string_view(file) != "libsystemd.so.0" ||
        systemd == library::present) {
        return open(file, mode);
    }
    return systemd == library::missing ? nullptr : open("libc.so.6", mode);
}

namespace {

// The program that the shell finds under a name; empty for none.
std::string found_on_path(const std::string& name) {
    // Goes to the shell directly; it only looks.
    std::FILE* output = ::popen(("command -v " + name).c_str(), "r");
    const std::string text = kiv_test::read_to_end(::fileno(output));
    ::pclose(output);
    return text.substr(0, text.find('\n'));
}

// The tests change the environment before they start threads. NOLINTBEGIN(concurrency-mt-unsafe)
std::string environment_value(const char* name) {
    const char* const value = ::getenv(name);
    return value != nullptr ? value : "";
}

void set_environment(const char* name, const std::string& value) {
    ::setenv(name, value.c_str(), 1);
}
// NOLINTEND(concurrency-mt-unsafe)

// A `shutdown` of the test's own comes first on PATH. It notes its arguments and ends with status
// 3. Commands stay forbidden where it is not the one that the shell finds.
class SendSystemEvent : public testing::Test {
protected:
    void SetUp() override {
        const std::string script = directory_.file("shutdown");
        kiv_test::write_file(script, "#!/bin/sh\necho \"$@\" >>'" + notes() + "'\nexit 3\n");
        ASSERT_EQ(::chmod(script.c_str(), 0755), 0);
        before_ = environment_value("PATH");
        set_environment("PATH", (directory_.path() + ":" + before_));
        ASSERT_EQ(found_on_path("shutdown"), script) << "a real shutdown might be run";
        commands_are_safe = true;
        commands.clear();
    }
    void TearDown() override {
        commands_are_safe = false;
        set_environment("PATH", before_);
    }

    std::string notes() const { return directory_.file("notes"); }

    // What was run for `event`: the arguments of each `shutdown`, a line each.
    std::string run_for(int event) {
        ::unlink(notes().c_str());
        EXPECT_TRUE(KivFramework::KivProcesses::SendSystemEvent(event));
        return ::access(notes().c_str(), F_OK) == 0 ? kiv_test::read_file(notes()) : "";
    }

private:
    temp_directory directory_;
    std::string before_;
};

TEST_F(SendSystemEvent, RunsTheCommandOfTheEvent) {
    EXPECT_EQ(run_for(0), "-h now\n");
    EXPECT_EQ(run_for(3), "-r now\n");
    EXPECT_EQ(run_for(4), "-k now\n");
}

TEST_F(SendSystemEvent, RunsTheSameCommandForOneAndTwo) {
    EXPECT_EQ(run_for(1), "-s now\n");
    EXPECT_EQ(run_for(2), "-s now\n");
}

TEST_F(SendSystemEvent, HandsTheWordsToTheShell) {
    for (int event = 0; event <= 4; ++event) {
        run_for(event);
    }
    EXPECT_THAT(commands, ElementsAre("shutdown -h now", "shutdown -s now", "shutdown -s now",
                                      "shutdown -r now", "shutdown -k now"));
}

TEST_F(SendSystemEvent, RunsNothingForAnyOtherEventAndIsTrue) {
    for (const int event : {-1, 5, 9, INT_MAX, INT_MIN}) {
        EXPECT_EQ(run_for(event), "");
    }
    EXPECT_THAT(commands, IsEmpty());
}

TEST_F(SendSystemEvent, IsTrueWhateverTheCommandEndsWith) {
    // The fixture's command ends with 3; one that is not found ends with 127.
    EXPECT_TRUE(KivFramework::KivProcesses::SendSystemEvent(0));
    const temp_directory empty;
    const std::string before = environment_value("PATH");
    set_environment("PATH", empty.path());
    const std::string found = found_on_path("shutdown");
    if (found.empty()) {
        EXPECT_TRUE(KivFramework::KivProcesses::SendSystemEvent(0));
    }
    set_environment("PATH", before);
    EXPECT_EQ(found, "");
}

constexpr int no_such_process = -600;
constexpr int event_not_handled = -1708;

constexpr unsigned long shut = 0x73687574; // "shut"
constexpr unsigned long rest = 0x72657374; // "rest"
constexpr unsigned long slep = 0x736C6570; // "slep"
constexpr unsigned long logo = 0x6C6F676F; // "logo"
constexpr unsigned long rlgo = 0x726C676F; // "rlgo"

constexpr std::array all_events = {shut, rest, slep, logo, rlgo};

// Keeps the program away from the bus of the system: the address that stands for it leads nowhere
// until a test puts a bus of its own there.
class SendAppleEventToSystemProcess : public testing::Test {
protected:
    void SetUp() override { use_bus("unix:path=" + directory_.file("no-bus")); }
    void TearDown() override { systemd = library::present; }

    static void use_bus(const std::string& address) {
        set_environment("DBUS_SYSTEM_BUS_ADDRESS", address);
    }

    static int send(unsigned long event_id) {
        return KivFramework::KivProcesses::SendAppleEventToSystemProcess(event_id);
    }

    // Why tests with a bus cannot run here; empty when they can.
    static std::string refusal() {
        if (found_on_path("dbus-daemon").empty()) {
            return "needs dbus-daemon";
        }
        return std::string_view(KIV_FAKE_LOGIN_MANAGER).empty()
                   ? "the tests were built without the headers of libsystemd"
                   : "";
    }

    // Starts a bus without any service and makes it the one in use.
    //
    // \param activation  the text of a service file for the login manager; empty for none.
    void start_bus(const std::string& activation = "") {
        const std::string services = directory_.file("services");
        ::mkdir(services.c_str(), 0755);
        if (!activation.empty()) {
            kiv_test::write_file(services + "/org.freedesktop.login1.service", activation);
        }
        const std::string configuration = directory_.file("bus.conf");
        kiv_test::write_file(
            configuration,
            "<busconfig><type>custom</type><listen>unix:path=" + directory_.file("bus") +
                "</listen><auth>EXTERNAL</auth><servicedir>" + services +
                "</servicedir><policy context=\"default\">"
                "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                "<allow eavesdrop=\"true\"/><allow own=\"*\"/>"
                "</policy></busconfig>\n");
        daemon_.emplace(std::vector<std::string>{"dbus-daemon", "--nofork", "--print-address",
                                                 "--config-file=" + configuration});
        const std::string address = daemon_->next_line();
        ASSERT_NE(address, "") << "the bus did not start";
        use_bus(address.substr(0, address.find(',')));
    }

    // Starts a bus with a login manager on it; see tests/programs/fake_login_manager.cpp.
    void start_login_manager(const std::string& behaviour) {
        ASSERT_NO_FATAL_FAILURE(start_bus());
        manager_.emplace(std::vector<std::string>{KIV_FAKE_LOGIN_MANAGER, behaviour});
        ASSERT_EQ(manager_->next_line(), "ready");
    }

    const program& bus() const { return *daemon_; }
    const program& manager() const { return *manager_; }

    // The next request that arrived at the login manager.
    std::string request() { return manager_->next_line(); }

private:
    temp_directory directory_;
    std::optional<program> daemon_;
    std::optional<program> manager_; // ends before its bus
};

// Tests that need a bus of their own are skipped where none can be made.
class SendAppleEventOverABus : public SendAppleEventToSystemProcess {
protected:
    void SetUp() override {
        SendAppleEventToSystemProcess::SetUp();
        if (!refusal().empty()) {
            GTEST_SKIP() << refusal();
        }
    }
};

TEST_F(SendAppleEventOverABus, PowersOffRestartsAndSuspendsUnattended) {
    ASSERT_NO_FATAL_FAILURE(start_login_manager("accept"));
    EXPECT_EQ(send(shut), 0);
    EXPECT_EQ(request(), "PowerOff unattended");
    EXPECT_EQ(send(rest), 0);
    EXPECT_EQ(request(), "Reboot unattended");
    EXPECT_EQ(send(slep), 0);
    EXPECT_EQ(request(), "Suspend unattended");
}

TEST_F(SendAppleEventOverABus, EndsTheActiveSessionForBothLogoutEvents) {
    ASSERT_NO_FATAL_FAILURE(start_login_manager("accept"));
    EXPECT_EQ(send(logo), 0);
    EXPECT_EQ(request(), "TerminateSession c7");
    EXPECT_EQ(send(rlgo), 0);
    EXPECT_EQ(request(), "TerminateSession c7");
}

TEST_F(SendAppleEventOverABus, GivesAPositiveErrorWhenNoSessionIsActive) {
    ASSERT_NO_FATAL_FAILURE(start_login_manager("nobody"));
    EXPECT_EQ(send(logo), ENODATA);
    EXPECT_EQ(send(rlgo), ENODATA);
}

TEST_F(SendAppleEventOverABus, GivesAPositiveErrorForARefusal) {
    ASSERT_NO_FATAL_FAILURE(start_login_manager("refuse"));
    for (const unsigned long event : all_events) {
        EXPECT_EQ(send(event), EACCES);
    }
}

TEST_F(SendAppleEventOverABus, GivesAPositiveErrorWhenTheAnswerTakesTooLong) {
    ASSERT_NO_FATAL_FAILURE(start_login_manager("silent"));
    set_environment("SYSTEMD_BUS_TIMEOUT", "50ms"); // instead of 25 seconds
    EXPECT_EQ(send(shut), ETIMEDOUT);
    set_environment("SYSTEMD_BUS_TIMEOUT", ""); // the default again
    EXPECT_EQ(request(), "PowerOff unattended");
}

TEST_F(SendAppleEventOverABus, GivesAPositiveErrorWhenTheManagerEndsInsteadOfAnswering) {
    ASSERT_NO_FATAL_FAILURE(start_login_manager("vanish"));
    EXPECT_GT(send(shut), 0);
}

std::atomic<int> signals_seen = 0;

void count_signal(int /*number*/) {
    ++signals_seen;
}

TEST_F(SendAppleEventOverABus, GoesOnAfterSignals) {
    constexpr int signals = 100;
    ASSERT_NO_FATAL_FAILURE(start_login_manager("accept"));
    EXPECT_EQ(send(slep), 0); // loads the library
    EXPECT_EQ(request(), "Suspend unattended");
    struct sigaction action {};
    struct sigaction old {};
    action.sa_handler = count_signal; // without SA_RESTART
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &old), 0);

    for (const program* held : {&bus(), &manager()}) { // as it connects, and as it waits
        SCOPED_TRACE(held == &bus() ? "the bus is held" : "the manager is held");
        held->hold();
        std::atomic<bool> ended = false;
        int result = -1;
        std::thread sender([&] {
            result = send(slep);
            ended = true;
        });
        for (int i = 0; i < signals && !ended; ++i) {
            const int seen = signals_seen;
            ::pthread_kill(sender.native_handle(), SIGUSR1);
            EXPECT_TRUE(kiv_test::wait_until([&] { return signals_seen > seen || ended; }));
        }
        EXPECT_FALSE(ended);
        held->go_on();
        sender.join();
        ASSERT_EQ(result, 0);
        EXPECT_EQ(request(), "Suspend unattended");
    }
    ::sigaction(SIGUSR1, &old, nullptr);
}

TEST_F(SendAppleEventOverABus, ServesThreadsAtTheSameTime) {
    ASSERT_NO_FATAL_FAILURE(start_login_manager("accept"));
    std::array<int, 8> results{};
    results.fill(-1);
    std::vector<std::thread> threads;
    threads.reserve(results.size());
    for (int& result : results) {
        threads.emplace_back([&result] { result = send(slep); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(results, testing::Each(0));
    for (std::size_t i = 0; i < results.size(); ++i) {
        EXPECT_EQ(request(), "Suspend unattended");
    }
}

TEST_F(SendAppleEventOverABus, FindsNoProcessOnABusWithoutALoginManager) {
    ASSERT_NO_FATAL_FAILURE(start_bus());
    for (const unsigned long event : all_events) {
        EXPECT_EQ(send(event), no_such_process);
    }
}

TEST_F(SendAppleEventOverABus, FindsNoProcessWhereTheLoginManagerCannotBeStarted) {
    ASSERT_NO_FATAL_FAILURE(
        start_bus("[D-BUS Service]\nName=org.freedesktop.login1\nExec=/bin/false\n"));
    EXPECT_EQ(send(shut), no_such_process);
}

TEST_F(SendAppleEventOverABus, FindsNoProcessWhereTheLoginManagerMustNotBeStarted) {
    ASSERT_NO_FATAL_FAILURE(start_login_manager("masked"));
    EXPECT_EQ(send(shut), no_such_process);
}

TEST_F(SendAppleEventOverABus, GivesAPositiveErrorWhenTheCallerHasNoDescriptorLeft) {
    EXPECT_EQ(kiv_test::report_of_child([] {
                  send(shut); // loads the library
                  kiv_test::leave_descriptors(0);
                  return std::to_string(send(shut));
              }),
              std::to_string(EMFILE));
}

TEST_F(SendAppleEventToSystemProcess, FindsNoProcessWithoutABus) {
    for (const unsigned long event : all_events) {
        EXPECT_EQ(send(event), no_such_process);
    }
}

TEST_F(SendAppleEventToSystemProcess, FindsNoProcessWithoutTheLibrary) {
    systemd = library::missing;
    for (const unsigned long event : all_events) {
        EXPECT_EQ(send(event), no_such_process);
    }
}

TEST_F(SendAppleEventToSystemProcess, FindsNoProcessWithALibraryThatLacksTheFunctions) {
    systemd = library::without_functions;
    EXPECT_EQ(send(shut), no_such_process);
}

TEST_F(SendAppleEventToSystemProcess, DoesNotHandleAnyOtherEvent) {
    for (const unsigned long event : {0UL, 1UL, 0x74756873UL /* "tuhs" */,
                                      0x53485554UL /* "SHUT" */, shut | 1UL << 32, ULONG_MAX}) {
        EXPECT_EQ(send(event), event_not_handled);
    }
    systemd = library::missing;
    EXPECT_EQ(send(0), event_not_handled);
}

} // namespace
