// The library's frame and host utilities against a system that this program plays: the definitions
// below stand before the C library's, answer as a test wishes and record what they were asked.

#include "KivFramework/KivLibrary.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/select.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

// One recorded call of `select`; nothing else than a sleep is expected.
struct sleep_call {
    bool watches_descriptors;
    long seconds;
    long microseconds;

    bool operator==(const sleep_call&) const = default;
};

// What the played system answers, and what it was asked. Empty: the real system answers.
struct played_system {
    std::deque<int> rand_values;
    std::optional<std::time_t> now;
    bool record_sleeps = false;
    bool skip_sleeps = false;
    std::vector<sleep_call> sleeps;
    int sleep_result = 0;
    int sleep_error = 0;
    bool fill_host_name = false;
    bool fail_host_name = false;
    std::size_t host_name_size = 0;
    bool hide_processors = false;
    bool fail_open = false;
    bool fail_flock = false;
    bool record_lock_calls = false;
    std::vector<std::string> lock_calls;
};

played_system played;

// Stands in every test: the real system is back at the end of its scope.
struct real_system_afterwards {
    ~real_system_afterwards() { played = {}; }
};

template <typename function>
function* real(const char* name) {
    return reinterpret_cast<function*>(::dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

int rand() noexcept {
    if (played.rand_values.empty()) {
        return real<int()>("rand")();
    }
    const int value = played.rand_values.front();
    played.rand_values.pop_front();
    return value;
}

time_t time(time_t* result) noexcept {
    return played.now ? *played.now : real<time_t(time_t*)>("time")(result);
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* limit) {
    if (!played.record_sleeps) {
        return real<decltype(select)>("select")(count, readable, writable, exceptional, limit);
    }
    const bool watches =
        count != 0 || readable != nullptr || writable != nullptr || exceptional != nullptr;
    played.sleeps.push_back({watches, limit->tv_sec, limit->tv_usec});
    if (played.skip_sleeps) {
        return 0;
    }
    played.sleep_result =
        real<decltype(select)>("select")(count, readable, writable, exceptional, limit);
    played.sleep_error = errno;
    return played.sleep_result;
}

int gethostname(char* name, size_t size) noexcept {
    played.host_name_size = size;
    if (played.fail_host_name) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (played.fill_host_name) {
        std::memset(name, 'x', size);
        return 0;
    }
    return real<int(char*, size_t)>("gethostname")(name, size);
}

// The thread sanitizer's runtime calls this before it can watch anything.
__attribute__((no_sanitize("thread"))) long sysconf(int name) noexcept {
    if (name == _SC_NPROCESSORS_ONLN && played.hide_processors) {
        return -1;
    }
    using function = long(int);
    return reinterpret_cast<function*>(::dlsym(RTLD_NEXT, "sysconf"))(name);
}

int open(const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if (played.record_lock_calls) {
        played.lock_calls.push_back("open " + std::string(path) + " " + std::to_string(flags) +
                                    " " + std::to_string(mode));
        if (played.fail_open) {
            errno = EMFILE;
            return -1;
        }
    }
    return real<int(const char*, int, ...)>("open")(path, flags, mode);
}

int flock(int descriptor, int operation) noexcept {
    if (played.record_lock_calls) {
        played.lock_calls.push_back("flock " + std::to_string(operation));
        if (played.fail_flock) {
            errno = EWOULDBLOCK;
            return -1;
        }
    }
    return real<int(int, int)>("flock")(descriptor, operation);
}

int close(int descriptor) {
    if (played.record_lock_calls) {
        played.lock_calls.emplace_back("close");
    }
    return real<int(int)>("close")(descriptor);
}

int unlink(const char* path) noexcept {
    if (played.record_lock_calls) {
        played.lock_calls.push_back("unlink " + std::string(path));
    }
    return real<int(const char*)>("unlink")(path);
}

} // extern "C"

namespace {

using namespace KivFramework;

TEST(GetProgressiveSeed, StartsWithTheRandValueDrawnAtTheStart) {
    const real_system_afterwards restore;
    played.rand_values = {41, 99};
    InitializeLibrary(nullptr);
    EXPECT_EQ(played.rand_values.size(), 1U); // one value only
    EXPECT_EQ(GetProgressiveSeed(), 41);
    EXPECT_EQ(GetProgressiveSeed(), 42);
    EXPECT_EQ(GetProgressiveSeed(), 43);
    ShutdownLibrary();
}

TEST(GetProgressiveSeed, WrapsPastTheLargestInt) {
    const real_system_afterwards restore;
    played.rand_values = {INT_MAX - 1};
    InitializeLibrary(nullptr);
    EXPECT_EQ(GetProgressiveSeed(), INT_MAX - 1);
    EXPECT_EQ(GetProgressiveSeed(), INT_MAX);
    EXPECT_EQ(GetProgressiveSeed(), INT_MIN);
    EXPECT_EQ(GetProgressiveSeed(), INT_MIN + 1);
    ShutdownLibrary();
}

TEST(MicroSleep, WaitsWholeSecondsAndTheRestInMicroseconds) {
    const real_system_afterwards restore;
    played.record_sleeps = true;
    played.skip_sleeps = true;
    for (const int milliseconds : {0, 1, 999, 1000, 1500, 60000, INT_MAX}) {
        MicroSleep(milliseconds);
    }
    const std::vector<sleep_call> expected = {
        {false, 0, 0},      {false, 0, 1000}, {false, 0, 999000},       {false, 1, 0},
        {false, 1, 500000}, {false, 60, 0},   {false, 2147483, 647000},
    };
    EXPECT_EQ(played.sleeps, expected);
}

TEST(MicroSleep, ShiftsASecondForANegativeRest) {
    const real_system_afterwards restore;
    played.record_sleeps = true;
    played.skip_sleeps = true;
    for (const int milliseconds : {-1, -999, -1000, -1500, INT_MIN}) {
        MicroSleep(milliseconds);
    }
    const std::vector<sleep_call> expected = {
        {false, 1, -1001000}, {false, 1, -1999000},        {false, -1, 0},
        {false, 0, -1500000}, {false, -2147482, -1648000},
    };
    EXPECT_EQ(played.sleeps, expected);
}

TEST(MicroSleep, ReturnsAtOnceWithANegativeTime) {
    const real_system_afterwards restore;
    played.record_sleeps = true;
    for (const int milliseconds : {-1, -999, -1000, -1500, INT_MIN}) {
        SCOPED_TRACE(milliseconds);
        MicroSleep(milliseconds);
        // The system refuses such a time instead of waiting.
        EXPECT_EQ(played.sleep_result, -1);
        EXPECT_EQ(played.sleep_error, EINVAL);
    }
}

TEST(MicroSleep, IsNotResumedWhenASignalInterrupts) {
    const real_system_afterwards restore;
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = [](int /*signal*/) {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);

    played.record_sleeps = true;
    std::atomic<bool> awake = false;
    std::thread sleeper([&awake] {
        MicroSleep(INT_MAX); // 24 days
        awake = true;
    });
    // The signal may come before the sleep begins, so it is sent until one ends it.
    while (!awake) {
        ::pthread_kill(sleeper.native_handle(), SIGUSR1);
        std::this_thread::yield();
    }
    sleeper.join();

    EXPECT_EQ(played.sleeps.size(), 1U);
    EXPECT_EQ(played.sleep_result, -1);
    EXPECT_EQ(played.sleep_error, EINTR);
    ::sigaction(SIGUSR1, &previous, nullptr);
}

TEST(GetHostName, TakesANameThatFillsTheBufferWithoutATerminator) {
    const real_system_afterwards restore;
    played.fill_host_name = true;
    std::string name;
    EXPECT_TRUE(GetHostName(name));
    EXPECT_EQ(played.host_name_size, 255U);
    EXPECT_EQ(name, std::string(255, 'x'));
}

TEST(GetHostName, LeavesTheNameAloneOnFailure) {
    const real_system_afterwards restore;
    played.fail_host_name = true;
    std::string name = "before";
    EXPECT_FALSE(GetHostName(name));
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(name, "before");
}

TEST(GetProcessorsCount, IsOneWhenTheSystemDoesNotTell) {
    const real_system_afterwards restore;
    played.hide_processors = true;
    EXPECT_EQ(GetProcessorsCount(), 1);
}

TEST(GenerateUniqueGUID, WritesFourDrawsInOrderAndTheTime) {
    const real_system_afterwards restore;
    played.rand_values = {0x1, 0x23, 0xABC, 0xFFFF};
    played.now = 0x5F5E1000;
    EXPECT_EQ(GenerateUniqueGUID(), "000100230ABCFFFF5F5E1000");
}

TEST(GenerateUniqueGUID, PadsTheTimeToFourDigits) {
    const real_system_afterwards restore;
    played.rand_values = {0, 0, 0, 0};
    played.now = 0x1F;
    EXPECT_EQ(GenerateUniqueGUID(), "0000000000000000001F");
}

TEST(GenerateUniqueGUID, DoesNotMaskLargeValues) {
    const real_system_afterwards restore;
    played.rand_values = {0x10000, 0x7FFFFFFF, 0xABCDE, 0};
    played.now = 0x123456789;
    EXPECT_EQ(GenerateUniqueGUID(), "100007FFFFFFFABCDE0000123456789");
}

TEST(GenerateUniqueGUID, HoldsTheLongestForm) {
    const real_system_afterwards restore;
    played.rand_values = {-1, -1, -1, -1};
    played.now = -1;
    EXPECT_EQ(GenerateUniqueGUID(), std::string(48, 'F'));
}

TEST(CreateUniqueLock, RemovesOpensAndLocksWithExactlyTheseFlags) {
    const real_system_afterwards restore;
    const std::string name = "kiv-library-calls-test-" + std::to_string(::getpid());
    const std::string path = "/tmp/" + name;
    played.record_lock_calls = true;
    const int lock = CreateUniqueLock(name.c_str());
    played.record_lock_calls = false;

    EXPECT_NE(lock, -1);
    const std::vector<std::string> expected = {
        "unlink " + path,
        "open " + path + " " + std::to_string(O_RDWR | O_NONBLOCK | O_CREAT) + " " +
            std::to_string(0600),
        "flock " + std::to_string(LOCK_EX | LOCK_NB),
    };
    EXPECT_EQ(played.lock_calls, expected);
    DeleteUniqueLock(lock, name.c_str());
}

TEST(CreateUniqueLock, ReturnsMinusOneWhenTheOpenFails) {
    const real_system_afterwards restore;
    played.record_lock_calls = true;
    played.fail_open = true;
    EXPECT_EQ(CreateUniqueLock("kiv-no-lock"), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(played.lock_calls.size(), 2U); // neither a lock nor a close follows
}

TEST(CreateUniqueLock, ClosesTheDescriptorWhenTheLockFails) {
    const real_system_afterwards restore;
    const std::string name = "kiv-library-calls-test-" + std::to_string(::getpid());
    played.record_lock_calls = true;
    played.fail_flock = true;
    EXPECT_EQ(CreateUniqueLock(name.c_str()), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    EXPECT_EQ(played.lock_calls.back(), "close");
    ::unlink(("/tmp/" + name).c_str());
}

TEST(DeleteUniqueLock, UnlocksClosesAndRemovesInThisOrder) {
    const real_system_afterwards restore;
    const std::string name = "kiv-library-calls-test-" + std::to_string(::getpid());
    const int lock = CreateUniqueLock(name.c_str());
    ASSERT_NE(lock, -1);
    played.record_lock_calls = true;
    EXPECT_TRUE(DeleteUniqueLock(lock, name.c_str()));
    const std::vector<std::string> expected = {"flock " + std::to_string(LOCK_UN), "close",
                                               "unlink /tmp/" + name};
    EXPECT_EQ(played.lock_calls, expected);
}

} // namespace
