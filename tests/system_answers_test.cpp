// Answers that a system gives rarely: those that this file's own definitions stand in for.

#include "KivFramework/internal/quiet_write.h"
#include "KivFramework/internal/read_fully.h"
#include "KivFramework/platform/accounts.h"
#include "KivFramework/platform/executable.h"
#include "KivFramework/platform/network_interfaces.h"
#include "KivFramework/platform/process_table.h"

#include "tests/support/pipe_ends.h"
#include "tests/support/temp_directory.h"
#include "tests/support/transfers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <pwd.h>
#include <unistd.h>

namespace {

// How the system answers: by itself, but for these.
struct answers {
    std::deque<int> read_errors; // of the next calls, 0 for none
    std::deque<int> look_up_errors;
    std::deque<int> signal_wait_errors;
    int list_error = 0;
    std::optional<std::string> executable;
    std::string opened_path; // opening it fails, or opens the other
    std::string opened_instead;
    int open_error = 0;
    bool has_interface_without_address = false;

    std::vector<std::size_t> look_up_sizes; // what was asked for
};
answers script;

int next_error(std::deque<int>& errors) {
    if (errors.empty()) {
        return 0;
    }
    const int error = errors.front();
    errors.pop_front();
    return error;
}

template <typename function>
function* original(const char* name) {
    return reinterpret_cast<function*>(::dlsym(RTLD_NEXT, name));
}

int fail_with(int error) {
    errno = error;
    return -1;
}

// The mode of a call that has one.
mode_t mode_in(int flags, std::va_list arguments) {
    return (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : mode_t{0};
}

} // namespace

extern "C" ssize_t read(int descriptor, void* data, size_t size) {
    static auto* const system_read = original<ssize_t(int, void*, size_t)>("read");
    const int error = next_error(script.read_errors);
    return error != 0 ? fail_with(error) : system_read(descriptor, data, size);
}

extern "C" ssize_t readlink(const char* path, char* text, size_t size) noexcept {
    static auto* const system_readlink = original<ssize_t(const char*, char*, size_t)>("readlink");
    if (!script.executable || std::string(path) != "/proc/self/exe") {
        return system_readlink(path, text, size);
    }
    return script.executable->empty() ? fail_with(ENOENT)
                                      : static_cast<ssize_t>(script.executable->copy(text, size));
}

extern "C" int open(const char* path, int flags, ...) {
    static auto* const system_open = original<int(const char*, int, ...)>("open");
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_in(flags, arguments);
    va_end(arguments);
    const bool redirected = !script.opened_path.empty() && path == script.opened_path;
    return system_open(redirected ? script.opened_instead.c_str() : path, flags, mode);
}

extern "C" int openat(int directory, const char* path, int flags, ...) {
    static auto* const system_openat = original<int(int, const char*, int, ...)>("openat");
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_in(flags, arguments);
    va_end(arguments);
    if (script.opened_path.empty() || path != script.opened_path) {
        return system_openat(directory, path, flags, mode);
    }
    return script.open_error != 0
               ? fail_with(script.open_error)
               : system_openat(directory, script.opened_instead.c_str(), flags, mode);
}

extern "C" ssize_t getdents64(int directory, void* entries, size_t size) noexcept {
    static auto* const system_getdents = original<ssize_t(int, void*, size_t)>("getdents64");
    return script.list_error != 0 ? fail_with(script.list_error)
                                  : system_getdents(directory, entries, size);
}

extern "C" int getpwuid_r(uid_t uid, passwd* record, char* texts, size_t size, passwd** found) {
    static auto* const system_call =
        original<int(uid_t, passwd*, char*, size_t, passwd**)>("getpwuid_r");
    script.look_up_sizes.push_back(size);
    const int error = next_error(script.look_up_errors);
    return error != 0 ? error : system_call(uid, record, texts, size, found);
}

extern "C" int sigtimedwait(const sigset_t* set, siginfo_t* info, const timespec* limit) {
    static auto* const system_call =
        original<int(const sigset_t*, siginfo_t*, const timespec*)>("sigtimedwait");
    const int error = next_error(script.signal_wait_errors);
    return error != 0 ? fail_with(error) : system_call(set, info, limit);
}

extern "C" int getifaddrs(ifaddrs** list) noexcept {
    static auto* const system_call = original<int(ifaddrs**)>("getifaddrs");
    const int result = system_call(list);
    if (result == 0 && script.has_interface_without_address) {
        (*list)->ifa_addr = nullptr;
    }
    return result;
}

namespace {

using namespace KivFramework;

class system_answers : public testing::Test {
protected:
    ~system_answers() override { script = {}; }
};

class ReadFully : public system_answers {};
class QuietWrite : public system_answers {};
class FindAccount : public system_answers {};
class ExecutableDirectory : public system_answers {};
class LinkAddresses : public system_answers {};
class ReadProcessTable : public system_answers {};
class ReadParentPid : public system_answers {};

TEST_F(ReadFully, GoesOnAfterASignal) {
    const kiv_test::pipe_ends ends = kiv_test::make_pipe();
    ASSERT_TRUE(kiv_test::write_fully(ends.write.get(), "abcd", 4));
    std::array<char, 4> bytes{};
    script.read_errors = {EINTR, EINTR};
    EXPECT_EQ(internal::read_fully(ends.read.get(), bytes.data(), bytes.size()), 4);
    EXPECT_EQ(std::string(bytes.data(), bytes.size()), "abcd");
}

TEST_F(ReadFully, GivesWhatItHasOnAFailureAndTheFailureWhenItHasNothing) {
    const kiv_test::pipe_ends ends = kiv_test::make_pipe();
    ASSERT_EQ(::write(ends.write.get(), "a", 1), 1);
    std::array<char, 4> bytes{};
    script.read_errors = {0, EIO};
    EXPECT_EQ(internal::read_fully(ends.read.get(), bytes.data(), bytes.size()), 1);
    script.read_errors = {EIO};
    EXPECT_EQ(internal::read_fully(ends.read.get(), bytes.data(), bytes.size()), -1);
    EXPECT_EQ(errno, EIO);
}

TEST_F(QuietWrite, TakesItsSignalBackThoughAnotherOneInterrupts) {
    kiv_test::pipe_ends ends = kiv_test::make_pipe();
    ends.read.reset();
    script.signal_wait_errors = {EINTR, EINTR};
    EXPECT_EQ(internal::quiet_write(ends.write.get(), "a", 1), -1); // which would end this process
    EXPECT_EQ(errno, EPIPE);
    EXPECT_TRUE(script.signal_wait_errors.empty());
}

TEST_F(QuietWrite, EndsWhereNoSignalCanBeTakenBack) {
    const auto before = std::signal(SIGPIPE, SIG_IGN);
    kiv_test::pipe_ends ends = kiv_test::make_pipe();
    ends.read.reset();
    script.signal_wait_errors = {EAGAIN};
    EXPECT_EQ(internal::quiet_write(ends.write.get(), "a", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_TRUE(script.signal_wait_errors.empty());
    std::signal(SIGPIPE, before);
}

TEST_F(FindAccount, MakesRoomUntilTheRecordFits) {
    script.look_up_errors = {ERANGE, ERANGE};
    const auto account = platform::find_account(uid_t{0});
    ASSERT_TRUE(account.has_value());
    EXPECT_EQ(account->uid, 0U);
    EXPECT_FALSE(account->name.empty());
    EXPECT_EQ(script.look_up_sizes, (std::vector<std::size_t>{1024, 2048, 4096}));
}

TEST_F(FindAccount, GoesOnAfterASignal) {
    script.look_up_errors = {EINTR};
    EXPECT_TRUE(platform::find_account(uid_t{0}).has_value());
    EXPECT_EQ(script.look_up_sizes, (std::vector<std::size_t>{1024, 1024}));
}

TEST_F(ExecutableDirectory, IsTheRootForAnExecutableInTheRoot) {
    script.executable = "/agent";
    EXPECT_EQ(platform::executable_directory(), "/");
}

TEST_F(ExecutableDirectory, IsEmptyWhereTheSystemNamesNone) {
    script.executable = "";
    EXPECT_EQ(platform::executable_directory(), "");
    script.executable = "agent"; // without a directory
    EXPECT_EQ(platform::executable_directory(), "");
}

TEST_F(LinkAddresses, PassesOverAnInterfaceWithoutAnAddress) {
    const auto all = platform::link_addresses();
    ASSERT_FALSE(all.empty()) << "there is always the loopback interface";
    script.has_interface_without_address = true;
    EXPECT_EQ(platform::link_addresses().size(), all.size() - 1);
}

bool has_row(const std::vector<platform::process_row>& rows, int pid) {
    return std::any_of(rows.begin(), rows.end(), [pid](const auto& row) { return row.pid == pid; });
}

TEST_F(ReadProcessTable, LeavesOutAProcessThatIsGoneOrHidden) {
    script.opened_path = std::to_string(::getpid()) + "/stat";
    for (const int error : {ENOENT, ESRCH, EACCES, EPERM}) {
        SCOPED_TRACE(error);
        script.open_error = error;
        const auto rows = platform::read_process_table();
        ASSERT_TRUE(rows.has_value());
        EXPECT_FALSE(has_row(*rows, ::getpid()));
        EXPECT_TRUE(has_row(*rows, ::getppid()));
    }
}

TEST_F(ReadProcessTable, FailsWhereAProcessCannotBeReadForAnotherReason) {
    script.opened_path = std::to_string(::getpid()) + "/stat";
    script.open_error = EMFILE;
    EXPECT_FALSE(platform::read_process_table().has_value());
}

TEST_F(ReadProcessTable, LeavesOutAProcessWhoseLineIsNone) {
    const kiv_test::temp_directory directory;
    script.opened_instead = directory.file("stat");
    kiv_test::write_file(script.opened_instead, "no line of a process\n");
    script.opened_path = std::to_string(::getpid()) + "/stat";
    const auto rows = platform::read_process_table();
    ASSERT_TRUE(rows.has_value());
    EXPECT_FALSE(has_row(*rows, ::getpid()));
}

TEST_F(ReadProcessTable, FailsWhereTheDirectoryCannotBeListed) {
    script.list_error = EIO;
    EXPECT_FALSE(platform::read_process_table().has_value());
}

TEST_F(ReadParentPid, IsNothingForAStatusWithoutAParentOrWithoutANumber) {
    const kiv_test::temp_directory directory;
    script.opened_instead = directory.file("status");
    script.opened_path = "/proc/4711/status";
    kiv_test::write_file(script.opened_instead, "Name:\tx\nTgid:\t4711\nPPid:\t42\n");
    EXPECT_EQ(platform::read_parent_pid(4711), 42);
    kiv_test::write_file(script.opened_instead, "Name:\tx\nTgid:\t4711\n");
    EXPECT_EQ(platform::read_parent_pid(4711), std::nullopt);
    kiv_test::write_file(script.opened_instead, "Name:\tx\nTgid:\t4711\nPPid:\tnone\n");
    EXPECT_EQ(platform::read_parent_pid(4711), std::nullopt);
    kiv_test::write_file(script.opened_instead, "Name:\tx\nPPid:\t42\n");
    EXPECT_EQ(platform::read_parent_pid(4711), std::nullopt);
}

TEST_F(ReadParentPid, IsNothingForAStatusThatCannotBeRead) {
    script.read_errors = {EIO};
    EXPECT_EQ(platform::read_parent_pid(::getpid()), std::nullopt);
    EXPECT_EQ(platform::read_parent_pid(::getpid()), ::getppid());
}

} // namespace
