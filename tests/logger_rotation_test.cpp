#include "KivFramework/KivLogger.h"

#include "tests/support/fake_time.h"
#include "tests/support/test_logger.h"

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <fcntl.h>
#include <pthread.h>

namespace {

using namespace KivFramework::KivLogger;
using kiv_test::fake_time;
using kiv_test::read_file;
using kiv_test::stdout_redirection;
using kiv_test::test_logger;
using kiv_test::time_zone;
using kiv_test::without_dates;
using kiv_test::write_file;

constexpr int to_stdout = 2;
constexpr int to_file = 4;

constexpr int hourly = 1;
constexpr int daily = 2;
constexpr int monthly = 3;

constexpr std::time_t hour = 3600;
constexpr std::time_t day = 24 * hour;
constexpr std::time_t march_7 = 1173277800; // 7 March 2007, 14:30:00 UTC, a Wednesday

std::set<std::string> files_of(const test_logger& logger) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(logger.path(""))) {
        names.insert(entry.path().filename());
    }
    return names;
}

// What the rotation callback received.
std::vector<std::string>& rotated_paths() {
    static std::vector<std::string> paths;
    return paths;
}

void remember_rotation(const char* path) {
    rotated_paths().emplace_back(path);
}

void watch_rotations(test_logger& logger) {
    rotated_paths().clear();
    SetLoggerRotationCallback(logger.get(), reinterpret_cast<void*>(remember_rotation));
}

// A logger in UTC at a known time, whose file has one line of that time.
struct rotating_log {
    rotating_log() {
        watch_rotations(logger);
        add("old");
    }

    void add(const char* message) { AddLogEntry(logger.get(), 1, "m", "%s", message); }

    std::string lines_of(const std::string& name = "default.log") {
        std::fflush(logger.record().file);
        return without_dates(read_file(logger.path(name)));
    }

    std::set<std::string> files_after(int mode, std::time_t now) {
        SetLoggerRotation(logger.get(), mode);
        clock.set(now);
        add("new");
        return files_of(logger);
    }

    const time_zone zone{"UTC"};
    fake_time clock{march_7};
    test_logger logger{to_file};
};

const std::set<std::string> one_file = {"default.log"};

TEST(SetLoggerRotation, NeverMovesAFileInAnyModeButTheThree) {
    rotating_log log;
    for (const int mode : {0, 7, 4, -1, 2147483647}) {
        SCOPED_TRACE(mode);
        EXPECT_EQ(log.files_after(mode, march_7 + 400 * day), one_file);
    }
    EXPECT_TRUE(rotated_paths().empty());
}

TEST(SetLoggerRotation, ActsAtOnceWithinTheSecond) {
    rotating_log log;
    const std::time_t next_day = march_7 + day;
    EXPECT_EQ(log.files_after(0, next_day), one_file);
    EXPECT_EQ(log.files_after(daily, next_day).size(), 2U);
}

TEST(CheckLogRotation, MovesAnHourlyFileUnderItsHour) {
    rotating_log log;
    EXPECT_EQ(log.files_after(hourly, march_7 + hour / 2),
              (std::set<std::string>{"03.07.2007.14.default.log", "default.log"}));
}

TEST(CheckLogRotation, MovesADailyFileUnderItsDay) {
    rotating_log log;
    EXPECT_EQ(log.files_after(daily, march_7 + 9 * hour + hour / 2),
              (std::set<std::string>{"03.07.2007.default.log", "default.log"}));
}

TEST(CheckLogRotation, MovesAMonthlyFileUnderItsMonth) {
    rotating_log log;
    EXPECT_EQ(log.files_after(monthly, march_7 + 25 * day),
              (std::set<std::string>{"03.2007.default.log", "default.log"}));
}

TEST(CheckLogRotation, LeavesAFileWithinItsPeriod) {
    rotating_log log;
    EXPECT_EQ(log.files_after(hourly, march_7 + hour / 2 - 1), one_file);
    EXPECT_EQ(log.files_after(daily, march_7 + 9 * hour + hour / 2 - 1), one_file);
    EXPECT_EQ(log.files_after(monthly, march_7 + 24 * day), one_file);
    EXPECT_TRUE(rotated_paths().empty());
}

TEST(CheckLogRotation, ComparesEveryFieldOfThePeriod) {
    rotating_log log;
    struct field_case {
        int mode;
        int std::tm::*field;
    };
    const field_case cases[] = {
        {hourly, &std::tm::tm_hour}, {hourly, &std::tm::tm_wday}, {hourly, &std::tm::tm_mon},
        {hourly, &std::tm::tm_year}, {daily, &std::tm::tm_mday},  {daily, &std::tm::tm_mon},
        {daily, &std::tm::tm_year},  {monthly, &std::tm::tm_mon}, {monthly, &std::tm::tm_year},
    };
    for (const auto& [mode, field] : cases) {
        rotated_paths().clear();
        ++(log.logger.record().period_start.*field);
        SetLoggerRotation(log.logger.get(), mode);
        log.add("text");
        EXPECT_EQ(rotated_paths().size(), 1U) << mode;
    }
}

TEST(CheckLogRotation, IgnoresTheOtherFieldsOfThePeriod) {
    rotating_log log;
    struct field_case {
        int mode;
        int std::tm::*field;
    };
    const field_case cases[] = {
        {hourly, &std::tm::tm_mday},  {hourly, &std::tm::tm_min},   {daily, &std::tm::tm_hour},
        {daily, &std::tm::tm_wday},   {monthly, &std::tm::tm_mday}, {monthly, &std::tm::tm_hour},
        {monthly, &std::tm::tm_wday},
    };
    for (const auto& [mode, field] : cases) {
        std::tm& start = log.logger.record().period_start;
        const int same = start.*field;
        ++(start.*field);
        SetLoggerRotation(log.logger.get(), mode);
        log.add("text");
        start.*field = same;
        EXPECT_TRUE(rotated_paths().empty()) << mode;
    }
}

TEST(CheckLogRotation, GoesOnInAnHourlyFileExactlyAWeekLater) {
    rotating_log log;
    EXPECT_EQ(log.files_after(hourly, march_7 + 7 * day), one_file);
    EXPECT_EQ(log.files_after(hourly, march_7 + 8 * day).size(), 2U);
}

TEST(CheckLogRotation, RotatesAnHourlyFileOfThisVeryHourAfterARestart) {
    rotating_log log;
    // The day of the week is not read back from the file, so it stays Sunday, 0.
    log.logger.destroy();
    kivLogger restarted;
    SetLoggerBasePath(&restarted, log.logger.record().base_path);
    CreateLogger(&restarted, 1, to_file);
    SetLoggerRotation(&restarted, hourly);
    AddLogEntry(&restarted, 1, "m", "new");
    DestroyLogger(&restarted);
    EXPECT_EQ(without_dates(read_file(log.logger.path("03.07.2007.14.default.log"))),
              " - [m] old\n");
    EXPECT_EQ(without_dates(read_file(log.logger.path())), " - [m] new\n");
}

TEST(CheckLogRotation, TakesThePeriodOfAFileFoundAtStart) {
    rotating_log log;
    log.logger.destroy();
    write_file(log.logger.path(), "01/31/2007 23:59:58 - [m] last year's\n");
    kivLogger restarted;
    SetLoggerBasePath(&restarted, log.logger.record().base_path);
    CreateLogger(&restarted, 1, to_file);
    SetLoggerRotation(&restarted, daily);
    AddLogEntry(&restarted, 1, "m", "new");
    DestroyLogger(&restarted);
    EXPECT_EQ(without_dates(read_file(log.logger.path("01.31.2007.default.log"))),
              " - [m] last year's\n");
}

TEST(CheckLogRotation, NamesAPeriodOfAnyNumbers) {
    rotating_log log;
    std::tm& start = log.logger.record().period_start;
    start.tm_mon = -1;
    start.tm_mday = 0;
    start.tm_year = -1900;
    log.files_after(daily, march_7);
    ASSERT_EQ(rotated_paths().size(), 1U);
    EXPECT_EQ(rotated_paths().front(), log.logger.path("00.00.0000.default.log"));
    start.tm_mon = 2147483647;
    start.tm_mday = -2147483647;
    start.tm_year = 2147483647;
    log.files_after(hourly, march_7);
    ASSERT_EQ(rotated_paths().size(), 2U);
    EXPECT_EQ(rotated_paths().back(),
              log.logger.path("-2147483648.-2147483647.-2147481749.14.default.log"));
}

TEST(CheckLogRotation, WritesTheEntryThatTriggeredItToTheFreshFile) {
    rotating_log log;
    log.files_after(daily, march_7 + day);
    EXPECT_EQ(log.lines_of("03.07.2007.default.log"), " - [m] old\n");
    EXPECT_EQ(log.lines_of(), " - [m] new\n");
}

TEST(CheckLogRotation, ReplacesAFileOfTheRotatedName) {
    rotating_log log;
    write_file(log.logger.path("03.07.2007.default.log"), "from an earlier rotation\n");
    log.files_after(daily, march_7 + day);
    EXPECT_EQ(log.lines_of("03.07.2007.default.log"), " - [m] old\n");
}

TEST(CheckLogRotation, KeepsTheFreshFileFromProgramsThatTheHostStarts) {
    rotating_log log;
    log.files_after(daily, march_7 + day);
    EXPECT_NE(::fcntl(::fileno(log.logger.record().file), F_GETFD) & FD_CLOEXEC, 0);
}

TEST(CheckLogRotation, StartsTheNewPeriodAtASecondReadingOfTheClock) {
    rotating_log log;
    SetLoggerRotation(log.logger.get(), daily);
    log.clock.set(march_7 + day, /*step=*/day);
    // The readings: the entry's date on the 8th, the decision on the 9th, the period on the 10th.
    log.add("new");
    EXPECT_EQ(log.logger.record().period_start.tm_mday, 10);
    EXPECT_EQ(read_file(log.logger.path()).substr(0, 10), "03/08/2007");
}

TEST(CheckLogRotation, AppendsToAFileThatCannotBeMoved) {
    rotating_log log;
    std::filesystem::create_directories(log.logger.path("03.07.2007.default.log/inside"));
    log.files_after(daily, march_7 + day);
    EXPECT_EQ(log.lines_of(), " - [m] old\n - [m] new\n");
    EXPECT_EQ(log.logger.record().period_start.tm_mday, 8);
    EXPECT_EQ(rotated_paths(), std::vector{log.logger.path("03.07.2007.default.log")});
}

TEST(CheckLogRotation, SilencesTheFileForGoodWhenItCannotBeOpenedAgain) {
    rotating_log log;
    std::filesystem::remove_all(log.logger.path(""));
    SetLoggerRotation(log.logger.get(), daily);
    log.clock.set(march_7 + day);
    std::string line = "lost";
    DumpLogString(log.logger.get(), line, 1, /*flush=*/true);
    EXPECT_EQ(line, "lost\n");
    EXPECT_EQ(log.logger.record().file, nullptr);
    EXPECT_EQ(rotated_paths().size(), 1U);

    std::filesystem::create_directory(log.logger.path(""));
    log.clock.set(march_7 + 2 * day);
    log.add("lost too");
    EXPECT_EQ(log.logger.record().file, nullptr);
    EXPECT_TRUE(files_of(log.logger).empty());
    EXPECT_EQ(rotated_paths().size(), 1U);
}

TEST(CheckLogRotation, LeavesTheOtherTargetsWhenTheFileCannotBeOpenedAgain) {
    rotating_log log;
    log.logger.record().flags = to_stdout | to_file;
    std::filesystem::remove_all(log.logger.path(""));
    SetLoggerRotation(log.logger.get(), daily);
    log.clock.set(march_7 + day);
    const stdout_redirection redirected;
    log.add("one");
    log.add("two");
    EXPECT_EQ(redirected.bytes(), "03/08/2007 14:30:00 - [m] one03/08/2007 14:30:00 - [m] two");
}

TEST(CheckLogRotation, RotatesAQuietLoggerWhenTheHostCallsIt) {
    rotating_log log;
    SetLoggerRotation(log.logger.get(), daily);
    log.clock.set(march_7 + day);
    pthread_mutex_lock(log.logger.record().lock);
    CheckLogRotation(log.logger.get());
    pthread_mutex_unlock(log.logger.record().lock);
    EXPECT_EQ(files_of(log.logger).size(), 2U);
    EXPECT_EQ(log.lines_of(), "");
}

TEST(CheckLogRotation, SeesAPeriodThatTheHostChangesWithinTheSecond) {
    rotating_log log;
    SetLoggerRotation(log.logger.get(), daily);
    log.add("same day");
    --log.logger.record().period_start.tm_mday;
    log.add("another day");
    EXPECT_EQ(log.lines_of("03.06.2007.default.log"), " - [m] old\n - [m] same day\n");
}

TEST(CheckLogRotation, SeesATimeZoneChangedWithinTheSecond) {
    rotating_log log;
    SetLoggerRotation(log.logger.get(), hourly);
    log.add("same hour");
    const time_zone west("ABC3");
    log.add("another hour");
    EXPECT_EQ(log.lines_of("03.07.2007.14.default.log"), " - [m] old\n - [m] same hour\n");
}

TEST(CheckLogRotation, NeverTouchesAFileThatIsNotATarget) {
    rotating_log log;
    log.logger.record().flags = to_stdout;
    const stdout_redirection redirected;
    EXPECT_EQ(log.files_after(daily, march_7 + day), one_file);
}

TEST(SetLoggerRotationCallback, GivesTheFullPathAfterEachRotation) {
    rotating_log log;
    log.files_after(daily, march_7 + day);
    log.files_after(daily, march_7 + 2 * day);
    EXPECT_EQ(rotated_paths(), (std::vector{log.logger.path("03.07.2007.default.log"),
                                            log.logger.path("03.08.2007.default.log")}));
}

TEST(SetLoggerRotationCallback, CallsNobodyWithNull) {
    rotating_log log;
    SetLoggerRotationCallback(log.logger.get(), nullptr);
    EXPECT_EQ(log.files_after(daily, march_7 + day).size(), 2U);
    EXPECT_TRUE(rotated_paths().empty());
}

// For the callback below, which is a plain function.
struct callback_view {
    kivLogger* logger = nullptr;
    bool lock_was_held = false;
    bool file_was_open = false;
    int day = 0;
};
callback_view seen_by_callback;

TEST(SetLoggerRotationCallback, RunsUnderTheLockWithTheFreshFileOpen) {
    rotating_log log;
    seen_by_callback = {};
    seen_by_callback.logger = log.logger.get();
    const auto look = [](const char*) {
        const kivLogger& logger = *seen_by_callback.logger;
        seen_by_callback.lock_was_held = pthread_mutex_trylock(logger.lock) != 0;
        seen_by_callback.file_was_open = logger.file != nullptr;
        seen_by_callback.day = logger.period_start.tm_mday;
    };
    SetLoggerRotationCallback(log.logger.get(),
                              reinterpret_cast<void*>(static_cast<void (*)(const char*)>(look)));
    log.files_after(daily, march_7 + day);
    EXPECT_TRUE(seen_by_callback.lock_was_held);
    EXPECT_TRUE(seen_by_callback.file_was_open);
    EXPECT_EQ(seen_by_callback.day, 8);
}

} // namespace
