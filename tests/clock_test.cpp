// What a clock that jumps, a zone that changes its hours and dates of every kind do to rotation,
// timed waits and heart-beats. The program's wall clock is a fake that the tests move.

#include "KivFramework/KivConfigFile.h"
#include "KivFramework/KivLogger.h"
#include "KivFramework/KivProcesses.h"
#include "KivFramework/KivSocket.h"

#include "tests/support/child_process.h"
#include "tests/support/fake_time.h"
#include "tests/support/temp_directory.h"
#include "tests/support/test_logger.h"
#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <limits>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr std::int64_t us_per_second = 1'000'000;

// What gettimeofday and the timed waits of threads with `waits_on_the_fake_clock` go by.
std::atomic<std::int64_t> fake_us{0};
std::atomic<int> looks_at_the_clock{0};
thread_local bool waits_on_the_fake_clock = false;

} // namespace

extern "C" int gettimeofday(timeval* now, void* zone) noexcept {
    static auto* const original =
        reinterpret_cast<int (*)(timeval*, void*)>(::dlsym(RTLD_NEXT, "gettimeofday"));
    if (!waits_on_the_fake_clock) {
        return original(now, zone);
    }
    now->tv_sec = static_cast<std::time_t>(fake_us / us_per_second);
    now->tv_usec = static_cast<suseconds_t>(fake_us % us_per_second);
    return 0;
}

// Waits as the system does on an absolute time of a wall clock that may be set meanwhile.
extern "C" int pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                      const timespec* deadline) {
    static auto* const original =
        reinterpret_cast<int (*)(pthread_cond_t*, pthread_mutex_t*, const timespec*)>(
            ::dlsym(RTLD_NEXT, "pthread_cond_timedwait"));
    if (!waits_on_the_fake_clock) {
        return original(cond, mutex, deadline);
    }
    const std::int64_t deadline_us = deadline->tv_sec * us_per_second + deadline->tv_nsec / 1000;
    while (fake_us < deadline_us) {
        constexpr long a_moment_ns = 1'000'000;
        constexpr long ns_per_second = 1'000'000'000;
        ++looks_at_the_clock;
        timespec soon{};
        ::clock_gettime(CLOCK_REALTIME, &soon);
        soon.tv_nsec += a_moment_ns;
        soon.tv_sec += soon.tv_nsec / ns_per_second;
        soon.tv_nsec %= ns_per_second;
        const int result = original(cond, mutex, &soon);
        if (result != ETIMEDOUT) {
            return result;
        }
    }
    return ETIMEDOUT;
}

namespace {

using namespace KivFramework;
using kiv_test::fake_time;
using kiv_test::read_file;
using kiv_test::time_zone;

constexpr int to_file = 4;
constexpr int hourly = 1;
constexpr int daily = 2;
constexpr int monthly = 3;

constexpr std::time_t minute = 60;
constexpr std::time_t hour = 60 * minute;
constexpr std::time_t day = 24 * hour;

constexpr std::time_t march_7_2007 = 1173277800;   // 14:30:00 UTC, a Wednesday
constexpr std::time_t spring_forward = 1711846800; // 31 March 2024, 01:00:00 UTC
constexpr std::time_t fall_back = 1729990800;      // 27 October 2024, 01:00:00 UTC
constexpr std::time_t leap_day_2024 = 1709164800;  // 29 February 2024, 00:00:00 UTC
constexpr std::time_t end_of_32_bits = 2147483647; // 19 January 2038, 03:14:07 UTC
// Only where a time has 64 bits; the tests that need these are skipped elsewhere.
constexpr bool has_64_bit_times = sizeof(std::time_t) == 8;
constexpr auto beyond_32_bits = static_cast<std::time_t>(2147483648); // a second later
constexpr auto march_1_2100 = static_cast<std::time_t>(4107542400);   // 00:00:00 UTC
constexpr const char* central_europe = "CET-1CEST,M3.5.0,M10.5.0/3";

// A logger on a clock of its own. Each entry's message is the time it was made at.
class logger_on_a_clock {
public:
    logger_on_a_clock(const char* zone, std::time_t now, int rotation)
        : zone_(zone), clock_(now), logger_(to_file) {
        KivLogger::SetLoggerRotation(logger_.get(), rotation);
    }

    void add_at(std::time_t now) {
        clock_.set(now);
        KivLogger::AddLogEntry(logger_.get(), 1, "m", "%lld", static_cast<long long>(now));
    }

    /// The messages in each file of the log directory.
    std::map<std::string, std::vector<std::time_t>> files() const {
        std::map<std::string, std::vector<std::time_t>> found;
        for (const auto& entry : std::filesystem::directory_iterator(logger_.path(""))) {
            std::vector<std::time_t>& times = found[entry.path().filename()];
            std::string text = read_file(entry.path());
            for (std::size_t end = 0; (end = text.find('\n')) != std::string::npos;) {
                times.push_back(
                    static_cast<std::time_t>(std::stoll(text.substr(text.rfind(' ', end) + 1))));
                text.erase(0, end + 1);
            }
        }
        return found;
    }

    std::string text() const { return read_file(logger_.path()); }

    kiv_test::test_logger& logger() { return logger_; }

private:
    time_zone zone_;
    fake_time clock_;
    kiv_test::test_logger logger_;
};

using files = std::map<std::string, std::vector<std::time_t>>;

TEST(CheckLogRotation, RotatesAnHourlyFileWhenTheClockJumpsAnHourForward) {
    logger_on_a_clock log("UTC", march_7_2007, hourly);
    log.add_at(march_7_2007);
    log.add_at(march_7_2007 + hour);
    EXPECT_EQ(log.files(), (files{{"03.07.2007.14.default.log", {march_7_2007}},
                                  {"default.log", {march_7_2007 + hour}}}));
}

TEST(CheckLogRotation, RotatesAnHourlyFileWhenTheClockJumpsAnHourBack) {
    logger_on_a_clock log("UTC", march_7_2007, hourly);
    log.add_at(march_7_2007);
    log.add_at(march_7_2007 - hour);
    log.add_at(march_7_2007 - hour + minute);
    EXPECT_EQ(log.files(),
              (files{{"03.07.2007.14.default.log", {march_7_2007}},
                     {"default.log", {march_7_2007 - hour, march_7_2007 - hour + minute}}}));
}

TEST(CheckLogRotation, ReplacesAFileOfAPeriodThatTheClockWentThroughTwice) {
    constexpr std::time_t before_midnight = 1173310200; // 7 March 2007, 23:30:00 UTC
    constexpr std::time_t after_midnight = before_midnight + hour;
    logger_on_a_clock log("UTC", before_midnight, daily);
    log.add_at(before_midnight);
    log.add_at(after_midnight);
    log.add_at(before_midnight + 1);
    log.add_at(after_midnight + 1);
    // The first file of 7 March is gone.
    EXPECT_EQ(log.files(), (files{{"03.07.2007.default.log", {before_midnight + 1}},
                                  {"03.08.2007.default.log", {after_midnight}},
                                  {"default.log", {after_midnight + 1}}}));
}

TEST(CheckLogRotation, GoesOverTheHourThatSummerTimeLeavesOut) {
    logger_on_a_clock log(central_europe, spring_forward - 1, hourly);
    log.add_at(spring_forward - 1); // 01:59:59
    log.add_at(spring_forward);     // 03:00:00
    EXPECT_EQ(log.files(), (files{{"03.31.2024.01.default.log", {spring_forward - 1}},
                                  {"default.log", {spring_forward}}}));
}

TEST(CheckLogRotation, KeepsTheHourThatTheEndOfSummerTimeRepeatsInOneFile) {
    logger_on_a_clock log(central_europe, fall_back - 30 * minute, hourly);
    log.add_at(fall_back - 30 * minute); // 02:30, summer time
    log.add_at(fall_back + 30 * minute); // 02:30 again
    log.add_at(fall_back + hour);        // 03:00
    EXPECT_EQ(log.files(), (files{{"10.27.2024.02.default.log",
                                   {fall_back - 30 * minute, fall_back + 30 * minute}},
                                  {"default.log", {fall_back + hour}}}));
}

// How many half hours of local days around a change of summer time stand in their file.
void expect_half_hours(std::time_t change, const std::string& day_of_change,
                       const std::string& day_before, std::size_t half_hours) {
    logger_on_a_clock log(central_europe, change - 2 * day, daily);
    for (std::time_t now = change - 2 * day; now < change + 2 * day; now += 30 * minute) {
        log.add_at(now);
    }
    const files found = log.files();
    EXPECT_EQ(found.size(), 5U);
    EXPECT_EQ(found.at(day_before + ".default.log").size(), 48U);
    EXPECT_EQ(found.at(day_of_change + ".default.log").size(), half_hours);
}

TEST(CheckLogRotation, GivesADayOf23HoursOneFile) {
    expect_half_hours(spring_forward, "03.31.2024", "03.30.2024", 46);
}

TEST(CheckLogRotation, GivesADayOf25HoursOneFile) {
    expect_half_hours(fall_back, "10.27.2024", "10.26.2024", 50);
}

TEST(CheckLogRotation, KnowsALeapDay) {
    logger_on_a_clock log("UTC", leap_day_2024 - 1, daily);
    log.add_at(leap_day_2024 - 1);
    log.add_at(leap_day_2024);
    log.add_at(leap_day_2024 + day - 1);
    log.add_at(leap_day_2024 + day);
    EXPECT_EQ(log.files(),
              (files{{"02.28.2024.default.log", {leap_day_2024 - 1}},
                     {"02.29.2024.default.log", {leap_day_2024, leap_day_2024 + day - 1}},
                     {"default.log", {leap_day_2024 + day}}}));
}

TEST(CheckLogRotation, KnowsTheYear2100WithoutALeapDay) {
    if (!has_64_bit_times) {
        GTEST_SKIP() << "a time has 32 bits here";
    }
    logger_on_a_clock log("UTC", march_1_2100 - 1, daily);
    log.add_at(march_1_2100 - 1);
    log.add_at(march_1_2100);
    EXPECT_EQ(log.files(), (files{{"02.28.2100.default.log", {march_1_2100 - 1}},
                                  {"default.log", {march_1_2100}}}));
}

TEST(CheckLogRotation, TakesUpAFileOfALeapDayAfterARestart) {
    const time_zone zone("UTC");
    fake_time clock(leap_day_2024 + day);
    kiv_test::temp_directory directory;
    kiv_test::write_file(directory.file("default.log"), "02/29/2024 12:00:00 - [m] old\n");
    kivLogger logger;
    KivLogger::SetLoggerBasePath(&logger, directory.path());
    KivLogger::CreateLogger(&logger, 1, to_file);
    KivLogger::SetLoggerRotation(&logger, daily);
    KivLogger::AddLogEntry(&logger, 1, "m", "new");
    KivLogger::DestroyLogger(&logger);
    EXPECT_EQ(read_file(directory.file("02.29.2024.default.log")),
              "02/29/2024 12:00:00 - [m] old\n");
    EXPECT_EQ(read_file(directory.file("default.log")), "03/01/2024 00:00:00 - [m] new\n");
}

TEST(CheckLogRotation, GoesOnBeyondTheEndOf32BitTime) {
    if (!has_64_bit_times) {
        GTEST_SKIP() << "a time has 32 bits here";
    }
    for (const int mode : {hourly, daily, monthly}) {
        logger_on_a_clock log("UTC", end_of_32_bits, mode);
        log.add_at(end_of_32_bits);
        log.add_at(beyond_32_bits);
        EXPECT_EQ(log.files(), (files{{"default.log", {end_of_32_bits, beyond_32_bits}}}));
    }
    logger_on_a_clock log("UTC", beyond_32_bits, daily);
    log.add_at(beyond_32_bits);
    log.add_at(beyond_32_bits + (day - 1));
    EXPECT_EQ(log.files(), (files{{"01.19.2038.default.log", {beyond_32_bits}},
                                  {"default.log", {beyond_32_bits + (day - 1)}}}));
}

TEST(AddLogEntry, WritesTheLocalTimeOfEveryInstant) {
    if (!has_64_bit_times) {
        GTEST_SKIP() << "a time has 32 bits here";
    }
    logger_on_a_clock log(central_europe, spring_forward, /*rotation=*/0);
    for (const std::time_t now : {spring_forward - 1, spring_forward, fall_back - 1, fall_back,
                                  leap_day_2024, end_of_32_bits, beyond_32_bits}) {
        log.add_at(now);
    }
    std::string dates;
    const std::string text = log.text();
    for (std::size_t start = 0; start < text.size(); start = text.find('\n', start) + 1) {
        dates += text.substr(start, 19) + '\n';
    }
    EXPECT_EQ(dates, "03/31/2024 01:59:59\n"
                     "03/31/2024 03:00:00\n"
                     "10/27/2024 02:59:59\n"
                     "10/27/2024 02:00:00\n"
                     "02/29/2024 01:00:00\n"
                     "01/19/2038 04:14:07\n"
                     "01/19/2038 04:14:08\n");
}

TEST(SetLoggerDetachedStatus, WritesOnWhenTheClockJumpsEitherWay) {
    logger_on_a_clock log("UTC", march_7_2007, /*rotation=*/0);
    KivLogger::SetLoggerDetachedStatus(log.logger().get(), true);
    std::vector<std::time_t> added;
    for (const std::time_t jump : {0 * hour, hour, -hour, 24 * hour, -24 * hour}) {
        added.push_back(march_7_2007 + jump);
        log.add_at(added.back());
        KivLogger::FlushDetachedThread(log.logger().get());
    }
    KivLogger::SetLoggerDetachedStatus(log.logger().get(), false);
    log.logger().destroy();
    EXPECT_EQ(log.files(), (files{{"default.log", added}}));
}

TEST(SaveConfigFile, DatesTheFileByTheLocalTimeOfEveryInstant) {
    if (!has_64_bit_times) {
        GTEST_SKIP() << "a time has 32 bits here";
    }
    const time_zone zone(central_europe);
    const kiv_test::temp_directory directory;
    const std::string path = directory.file("config");
    const std::map<std::time_t, std::string> cases = {
        {spring_forward - 1, "31/03/2024 01:59"},
        {spring_forward, "31/03/2024 03:00"},
        {leap_day_2024, "29/02/2024 01:00"},
        {beyond_32_bits, "19/01/2038 04:14"},
    };
    for (const auto& [now, date] : cases) {
        const fake_time clock(now);
        kivConfigManager manager;
        EXPECT_TRUE(SaveConfigFile(&manager, path.c_str()));
        EXPECT_EQ(read_file(path), "## This file was autogenerated on " + date +
                                       " ##\n\n\n\n## End of autogenerated file ##\n");
    }
}

// A timed wait in a thread of its own on the fake clock.
class timed_wait {
public:
    explicit timed_wait(int milliseconds)
        : mutex_(KivProcesses::CreateMutex()),
          condition_(KivProcesses::CreateConditional(&mutex_)) {
        looks_at_the_clock = 0;
        waiter_ = std::thread([this, milliseconds] {
            waits_on_the_fake_clock = true;
            KivProcesses::LockMutex(mutex_);
            result_ = KivProcesses::WaitTimedConditional(condition_, milliseconds);
            ended_at_us_ = fake_us;
            ended_ = true;
            KivProcesses::UnlockMutex(mutex_);
        });
    }
    ~timed_wait() {
        if (waiter_.joinable()) {
            result();
        }
        KivProcesses::DestroyConditional(condition_);
        KivProcesses::DestroyMutex(mutex_);
    }
    timed_wait(const timed_wait&) = delete;
    timed_wait& operator=(const timed_wait&) = delete;

    /// Whether it goes on after some more looks at the clock.
    bool goes_on() const {
        const int before = looks_at_the_clock;
        return kiv_test::wait_until([&] { return ended_ || looks_at_the_clock >= before + 3; }) &&
               !ended_;
    }

    void signal() {
        KivProcesses::LockMutex(mutex_);
        KivProcesses::SignalConditional(condition_);
        KivProcesses::UnlockMutex(mutex_);
    }

    bool result() {
        waiter_.join();
        return result_;
    }

    std::int64_t ended_at_us() const { return ended_at_us_; }

private:
    pthread_mutex_t* mutex_;
    _posix_conditional_var* condition_;
    std::thread waiter_;
    bool result_ = false;
    std::int64_t ended_at_us_ = 0;
    std::atomic<bool> ended_{false};
};

constexpr int half_an_hour_ms = 30 * 60 * 1000;

TEST(WaitTimedConditional, TimesOutWhenTheWallClockJumpsBeyondItsDeadline) {
    fake_us = march_7_2007 * us_per_second;
    timed_wait wait(half_an_hour_ms);
    ASSERT_TRUE(wait.goes_on());
    fake_us += hour * us_per_second;
    EXPECT_FALSE(wait.result());
}

TEST(WaitTimedConditional, WaitsForItsTimeOfDayWhenTheWallClockJumpsBack) {
    constexpr std::int64_t start = march_7_2007 * us_per_second;
    fake_us = start;
    timed_wait wait(1000);
    ASSERT_TRUE(wait.goes_on());
    fake_us = start - hour * us_per_second;
    EXPECT_TRUE(wait.goes_on());
    fake_us = start + us_per_second - 1;
    EXPECT_TRUE(wait.goes_on());
    fake_us = start + us_per_second;
    EXPECT_FALSE(wait.result());
    EXPECT_EQ(wait.ended_at_us(), start + us_per_second);
}

TEST(WaitTimedConditional, TakesASignalWhateverTheWallClockDidMeanwhile) {
    fake_us = march_7_2007 * us_per_second;
    timed_wait wait(half_an_hour_ms);
    ASSERT_TRUE(wait.goes_on());
    fake_us -= hour * us_per_second;
    ASSERT_TRUE(wait.goes_on());
    wait.signal();
    EXPECT_TRUE(wait.result());
}

// Waits five seconds from one second before the instant on.
void expect_wait_across(std::time_t instant) {
    SCOPED_TRACE(instant);
    const std::int64_t start = (std::int64_t{instant} - 1) * us_per_second;
    fake_us = start;
    timed_wait wait(5000);
    ASSERT_TRUE(wait.goes_on());
    fake_us = start + us_per_second;
    EXPECT_TRUE(wait.goes_on());
    fake_us = start + 5 * us_per_second - 1;
    EXPECT_TRUE(wait.goes_on());
    fake_us = start + 5 * us_per_second;
    EXPECT_FALSE(wait.goes_on());
    fake_us = std::numeric_limits<std::int64_t>::max(); // ends a wait for any other time
    EXPECT_FALSE(wait.result());
    EXPECT_EQ(wait.ended_at_us(), start + 5 * us_per_second);
}

TEST(WaitTimedConditional, CountsSecondsAcrossChangesOfSummerTimeAndALeapDay) {
    const time_zone zone(central_europe);
    const std::time_t local_leap_day_2024 = leap_day_2024 - hour;
    for (const std::time_t instant :
         {spring_forward, fall_back, leap_day_2024, local_leap_day_2024, leap_day_2024 + day}) {
        expect_wait_across(instant);
    }
}

TEST(WaitTimedConditional, ReachesDeadlinesBeyondTheEndOf32BitTime) {
    if (!has_64_bit_times) {
        GTEST_SKIP() << "a time has 32 bits here";
    }
    expect_wait_across(end_of_32_bits);
    expect_wait_across(beyond_32_bits);
}

TEST(WaitProcess, TimesOutWhenTheClockJumpsForward) {
    const fake_time clock(march_7_2007, /*step=*/hour);
    const kiv_test::idle_child child;
    kivProcess process;
    process.pid = child.pid();
    long exit_code = -1;
    EXPECT_EQ(KivProcesses::WaitProcess(&process, false, 1800, exit_code), 2);
    EXPECT_EQ(exit_code, -1);
}

TEST(WaitProcess, SeesTheEndOfAChildThoughTheClockJumpedBack) {
    const fake_time clock(march_7_2007, /*step=*/-hour);
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(3);
    }
    kivProcess process;
    process.pid = child;
    long exit_code = -1;
    EXPECT_EQ(KivProcesses::WaitProcess(&process, false, 60, exit_code), 1);
    EXPECT_EQ(exit_code, 3);
}

TEST(CheckHeartBeat, FindsEveryPeerSilentWhenTheClockJumpsForwardUntilItBeatsAgain) {
    fake_time clock(march_7_2007);
    kivSocketStream stream;
    EXPECT_TRUE(stream.CheckHeartBeat(60));
    clock.set(march_7_2007 + hour);
    EXPECT_FALSE(stream.CheckHeartBeat(60));
    stream.UpdateHeartBeat();
    EXPECT_TRUE(stream.CheckHeartBeat(60));
}

TEST(CheckHeartBeat, FindsNoPeerSilentForTheTimeThatTheClockJumpedBackUntilItBeatsAgain) {
    fake_time clock(march_7_2007);
    kivSocketStream stream;
    clock.set(march_7_2007 - hour);
    EXPECT_TRUE(stream.CheckHeartBeat(60));
    clock.set(march_7_2007 + 60); // more than an hour of silence
    EXPECT_TRUE(stream.CheckHeartBeat(60));
    clock.set(march_7_2007 - hour);
    stream.UpdateHeartBeat();
    clock.set(march_7_2007 - hour + 61);
    EXPECT_FALSE(stream.CheckHeartBeat(60));
}

TEST(CheckHeartBeat, CountsSecondsAcrossChangesOfSummerTimeLeapDaysAndTheEndOf32BitTime) {
    if (!has_64_bit_times) {
        GTEST_SKIP() << "a time has 32 bits here";
    }
    const time_zone zone(central_europe);
    for (const std::time_t instant :
         {spring_forward, fall_back, leap_day_2024, march_1_2100, end_of_32_bits}) {
        fake_time clock(instant - 3);
        kivSocketStream stream;
        clock.set(instant + 4);
        EXPECT_TRUE(stream.CheckHeartBeat(7)) << instant;
        EXPECT_FALSE(stream.CheckHeartBeat(6)) << instant;
    }
}

} // namespace
