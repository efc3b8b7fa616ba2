#include "KivFramework/KivLibrary.h"
#include "KivFramework/KivLogger.h"

#include "tests/support/fake_time.h"
#include "tests/support/temp_directory.h"
#include "tests/support/test_logger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <list>
#include <string>
#include <thread>
#include <type_traits>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

using namespace KivFramework::KivLogger;
using kiv_test::fake_time;
using kiv_test::read_file;
using kiv_test::stdout_redirection;
using kiv_test::temp_directory;
using kiv_test::test_logger;
using kiv_test::time_zone;
using kiv_test::without_dates;
using kiv_test::write_file;

constexpr int to_stdout = 2;
constexpr int to_file = 4;
constexpr std::time_t morning = 1173258301; // 7 March 2007, 09:05:01 UTC, a Wednesday

std::string default_log(const temp_directory& directory) {
    return read_file(directory.file("default.log"));
}

bool closes_on_exec(std::FILE* file) {
    return (::fcntl(::fileno(file), F_GETFD) & FD_CLOEXEC) != 0;
}

// The date a record holds, as the six numbers of a log line.
std::array<int, 6> numbers_of(const std::tm& time) {
    return {time.tm_mon, time.tm_mday, time.tm_year, time.tm_hour, time.tm_min, time.tm_sec};
}

TEST(kivLogger, StartsWithTheDocumentedState) {
    const kivLogger logger;
    EXPECT_EQ(logger.facility, -1);
    EXPECT_EQ(logger.file, nullptr);
    EXPECT_TRUE(logger.file_name.empty());
    EXPECT_TRUE(logger.base_path.empty());
    EXPECT_TRUE(logger.identity.empty());
    EXPECT_EQ(logger.rotation, 0);
    EXPECT_EQ(logger.detached, 0);
    EXPECT_EQ(logger.writer_thread, nullptr);
    EXPECT_EQ(logger.rotation_callback, nullptr);
    EXPECT_TRUE(logger.queue.empty());
}

TEST(kivLogger, KeepsItsFieldsWhereHostsWereCompiledToFindThem) {
    static_assert(std::is_same_v<KivFramework::kivLogger, kivLogger>);
    const kivLogger logger;
    // The list keeps the record from being of standard layout, so offsetof does not serve.
    const auto offset_of = [&logger](const auto& field) {
        return reinterpret_cast<const char*>(&field) - reinterpret_cast<const char*>(&logger);
    };
    EXPECT_EQ(offset_of(logger.level), 0);
    EXPECT_EQ(offset_of(logger.flags), 4);
    EXPECT_EQ(offset_of(logger.facility), 8);
    EXPECT_EQ(offset_of(logger.file), 16);
    EXPECT_EQ(offset_of(logger.file_name), 24);
    EXPECT_EQ(offset_of(logger.base_path), 56);
    EXPECT_EQ(offset_of(logger.identity), 88);
    EXPECT_EQ(offset_of(logger.lock), 120);
    EXPECT_EQ(offset_of(logger.queue_lock), 128);
    EXPECT_EQ(offset_of(logger.queue_signal), 136);
    EXPECT_EQ(offset_of(logger.writer_thread), 144);
    EXPECT_EQ(offset_of(logger.rotation), 152);
    EXPECT_EQ(offset_of(logger.period_start), 160);
    EXPECT_EQ(offset_of(logger.detached), 216);
    EXPECT_EQ(offset_of(logger.stop_writer), 220);
    EXPECT_EQ(offset_of(logger.rotation_callback), 224);
    EXPECT_EQ(offset_of(logger.queue), 232);
    EXPECT_EQ(offset_of(logger.internal_state), 256);
    EXPECT_EQ(sizeof(kivLogger), 264U);
}

TEST(SetLoggerFile, NamesTheFileThatCreateLoggerOpens) {
    const temp_directory directory;
    kivLogger logger;
    SetLoggerBasePath(&logger, directory.path());
    SetLoggerFile(&logger, "app.log");
    CreateLogger(&logger, 1, to_file);
    AddLogEntry(&logger, 1, "m", "text");
    DestroyLogger(&logger);
    EXPECT_EQ(without_dates(read_file(directory.file("app.log"))), " - [m] text\n");
}

TEST(SetLoggerFile, TakesNullForNoName) {
    kivLogger logger;
    SetLoggerFile(&logger, nullptr);
    EXPECT_EQ(logger.file_name, "");
}

TEST(SetLoggerIdentity, AssignsTheFieldThatCreateLoggerOverwrites) {
    kivLogger logger;
    SetLoggerIdentity(&logger, "mine");
    EXPECT_EQ(logger.identity, "mine");
    const temp_directory directory;
    SetLoggerBasePath(&logger, directory.path());
    CreateLogger(&logger, 1, 0);
    EXPECT_EQ(logger.identity, "kivUtilsLog");
    DestroyLogger(&logger);
}

TEST(SetLoggerFacility, AddsTheNumberTo128WithoutShiftingIt) {
    const std::array<std::array<int, 2>, 5> cases = {
        {{0, 128}, {1, 129}, {7, 135}, {-1, 127}, {-200, -72}}};
    for (const auto& [number, facility] : cases) {
        SCOPED_TRACE(number);
        kivLogger logger;
        SetLoggerFacility(&logger, number);
        EXPECT_EQ(logger.facility, facility);
    }
}

TEST(SetLoggerFacility, IgnoresNumbersAbove7) {
    kivLogger logger;
    for (const int number : {8, 23, 2147483647}) {
        SetLoggerFacility(&logger, number);
        EXPECT_EQ(logger.facility, -1);
    }
}

TEST(CreateLogger, FillsEmptyNamesWithTheDefaults) {
    KivFramework::InitializeLibrary(nullptr);
    kivLogger logger;
    CreateLogger(&logger, 1, 0);
    EXPECT_EQ(logger.base_path, KivFramework::GetModuleBasePath());
    EXPECT_EQ(logger.file_name, "default.log");
    DestroyLogger(&logger);
    KivFramework::ShutdownLibrary();
}

TEST(CreateLogger, ResetsItsFieldsAndLeavesTheOthersAlone) {
    const temp_directory directory;
    kivLogger logger;
    logger.rotation = 2;
    logger.stop_writer = 1;
    logger.facility = 5;
    logger.detached = 1;
    logger.queue.emplace_back("left");
    logger.rotation_callback = [](const char*) {};
    SetLoggerBasePath(&logger, directory.path());
    CreateLogger(&logger, 3, 2);
    EXPECT_EQ(logger.level, 3);
    EXPECT_EQ(logger.flags, 2);
    EXPECT_EQ(logger.detached, 0);
    EXPECT_EQ(logger.writer_thread, nullptr);
    EXPECT_EQ(logger.rotation_callback, nullptr);
    EXPECT_EQ(logger.file, nullptr);
    EXPECT_EQ(logger.rotation, 2);
    EXPECT_EQ(logger.stop_writer, 1);
    EXPECT_EQ(logger.facility, 5);
    EXPECT_EQ(logger.queue.size(), 1U);
    EXPECT_EQ(logger.queue_signal->mutex, logger.queue_lock);
    DestroyLogger(&logger);
}

TEST(CreateLogger, MakesTheDirectoryEvenWithoutAFileTarget) {
    const temp_directory directory;
    kivLogger logger;
    SetLoggerBasePath(&logger, directory.file("logs"));
    CreateLogger(&logger, 1, to_stdout);
    DestroyLogger(&logger);
    EXPECT_TRUE(std::filesystem::is_directory(directory.file("logs")));
    EXPECT_TRUE(std::filesystem::is_empty(directory.file("logs")));
}

TEST(CreateLogger, MakesNoParentDirectoriesAndStaysSilentWithoutItsDirectory) {
    const temp_directory directory;
    kivLogger logger;
    SetLoggerBasePath(&logger, directory.file("a/b"));
    CreateLogger(&logger, 1, to_file);
    EXPECT_EQ(logger.file, nullptr);
    AddLogEntry(&logger, 1, "m", "lost");
    DestroyLogger(&logger);
    EXPECT_FALSE(std::filesystem::exists(directory.file("a")));
}

TEST(CreateLogger, StaysSilentWhenTheLogFileIsADirectory) {
    const temp_directory directory;
    std::filesystem::create_directory(directory.file("default.log"));
    kivLogger logger;
    SetLoggerBasePath(&logger, directory.path());
    CreateLogger(&logger, 1, to_file);
    EXPECT_EQ(logger.file, nullptr);
    AddLogEntry(&logger, 1, "m", "lost");
    DestroyLogger(&logger);
}

TEST(CreateLogger, DoesNotWaitForTheOtherEndOfAPipe) {
    const temp_directory directory;
    ASSERT_EQ(::mkfifo(directory.file("default.log").c_str(), 0600), 0);
    kivLogger logger;
    SetLoggerBasePath(&logger, directory.path());
    CreateLogger(&logger, 1, to_file);
    EXPECT_NE(logger.file, nullptr);
    DestroyLogger(&logger);
}

TEST(CreateLogger, AppendsToAnExistingFile) {
    const temp_directory directory;
    write_file(directory.file("default.log"), "before\n");
    kivLogger logger;
    SetLoggerBasePath(&logger, directory.path());
    CreateLogger(&logger, 1, to_file);
    AddLogEntry(&logger, 1, "m", "after");
    DestroyLogger(&logger);
    const std::string text = default_log(directory);
    EXPECT_EQ(text.substr(0, 7), "before\n");
    EXPECT_EQ(without_dates(text.substr(7)), " - [m] after\n");
}

TEST(CreateLogger, OpensTheFileForReadingToo) {
    test_logger logger(to_file);
    AddLogEntry(logger.get(), 1, "m", "text");
    std::rewind(logger.record().file);
    char line[64] = "";
    ASSERT_NE(std::fgets(line, sizeof(line), logger.record().file), nullptr);
    EXPECT_EQ(without_dates(line), " - [m] text\n");
}

TEST(CreateLogger, KeepsTheFileFromProgramsThatTheHostStarts) {
    test_logger logger(to_file);
    EXPECT_TRUE(closes_on_exec(logger.record().file));
}

TEST(CreateLogger, ReadsThePeriodFromTheFirst20BytesOfAnExistingFile) {
    const temp_directory directory;
    write_file(directory.file("default.log"), "01/31/2007 23:59:58 - [m] text\n");
    kivLogger logger;
    logger.period_start.tm_wday = 5;
    logger.period_start.tm_yday = 99;
    SetLoggerBasePath(&logger, directory.path());
    CreateLogger(&logger, 1, to_file);
    DestroyLogger(&logger);
    EXPECT_EQ(numbers_of(logger.period_start), (std::array{0, 31, 107, 23, 59, 58}));
    EXPECT_EQ(logger.period_start.tm_wday, 5); // nothing derives it from the date
    EXPECT_EQ(logger.period_start.tm_yday, 99);
}

TEST(CreateLogger, ReadsThePeriodFromExactly20Bytes) {
    const temp_directory directory;
    write_file(directory.file("default.log"), "01/31/2007 23:59:58 ");
    kivLogger logger;
    SetLoggerBasePath(&logger, directory.path());
    CreateLogger(&logger, 1, to_file);
    DestroyLogger(&logger);
    EXPECT_EQ(numbers_of(logger.period_start), (std::array{0, 31, 107, 23, 59, 58}));
}

TEST(CreateLogger, KeepsNumbersThatDoNotParseButStillSubtracts) {
    struct parse_case {
        const char* text;
        std::array<int, 6> expected;
    };
    const parse_case cases[] = {
        {"no date is in here at all", {9, 20, -1870, 40, 50, 60}},
        {"02/xx/2007 10:20:30 text", {1, 20, -1870, 40, 50, 60}},
        {"02/03/2007x10:20:30 text", {1, 3, 107, 40, 50, 60}},
        {" 2/ 3/2007 10:20:30 text", {1, 3, 107, 10, 20, 30}},
        {"02/03/20071 0:20:30 text", {1, 3, 107, 1, 50, 60}},
    };
    for (const parse_case& one : cases) {
        SCOPED_TRACE(one.text);
        const temp_directory directory;
        write_file(directory.file("default.log"), one.text);
        kivLogger logger;
        logger.period_start.tm_mon = 10;
        logger.period_start.tm_mday = 20;
        logger.period_start.tm_year = 30;
        logger.period_start.tm_hour = 40;
        logger.period_start.tm_min = 50;
        logger.period_start.tm_sec = 60;
        SetLoggerBasePath(&logger, directory.path());
        CreateLogger(&logger, 1, to_file);
        DestroyLogger(&logger);
        EXPECT_EQ(numbers_of(logger.period_start), one.expected);
    }
}

TEST(CreateLogger, StartsThePeriodNowForAFileShorterThan20Bytes) {
    const time_zone zone("UTC");
    const fake_time clock(morning);
    for (const char* text : {"", "01/31/2007 23:59:58"}) {
        const temp_directory directory;
        write_file(directory.file("default.log"), text);
        kivLogger logger;
        SetLoggerBasePath(&logger, directory.path());
        CreateLogger(&logger, 1, to_file);
        DestroyLogger(&logger);
        EXPECT_EQ(numbers_of(logger.period_start), (std::array{2, 7, 107, 9, 5, 1}));
        EXPECT_EQ(logger.period_start.tm_wday, 3);
    }
}

TEST(CreateLogger, StartsThePeriodNowWithoutAFile) {
    const time_zone zone("UTC");
    const fake_time clock(morning);
    test_logger logger(to_file);
    EXPECT_EQ(numbers_of(logger.record().period_start), (std::array{2, 7, 107, 9, 5, 1}));
}

TEST(CreateLogger, LeavesThePeriodAloneWithoutTheFileTarget) {
    kivLogger logger;
    logger.period_start.tm_mday = 9;
    const temp_directory directory;
    SetLoggerBasePath(&logger, directory.path());
    CreateLogger(&logger, 1, to_stdout);
    DestroyLogger(&logger);
    EXPECT_EQ(logger.period_start.tm_mday, 9);
}

TEST(AddLogEntry, WritesDateModuleAndMessage) {
    const time_zone zone("UTC");
    const fake_time clock(morning);
    test_logger logger(to_file);
    AddLogEntry(logger.get(), 1, "KivFramework", "%s is %d", "answer", 42);
    logger.destroy();
    EXPECT_EQ(read_file(logger.path()), "03/07/2007 09:05:01 - [KivFramework] answer is 42\n");
}

TEST(AddLogEntry, WritesEntriesOfTheThresholdAndBelow) {
    test_logger logger(to_file, /*level=*/2);
    for (const int level : {1, 2, 3, -5, 2147483647}) {
        AddLogEntry(logger.get(), level, "m", "level %d", level);
    }
    logger.destroy();
    EXPECT_EQ(without_dates(read_file(logger.path())),
              " - [m] level 1\n - [m] level 2\n - [m] level -5\n");
}

TEST(AddLogEntry, ComparesLevelsWithTheirSigns) {
    test_logger logger(to_file, /*level=*/-2);
    AddLogEntry(logger.get(), -1, "m", "dropped");
    AddLogEntry(logger.get(), -2, "m", "written");
    logger.destroy();
    EXPECT_EQ(without_dates(read_file(logger.path())), " - [m] written\n");
}

TEST(AddLogEntry, DoesNothingWithANullLogger) {
    AddLogEntry(nullptr, 1, "m", "%s", "nowhere");
}

TEST(AddLogEntry, DoesNothingWithARecordThatIsNotCreated) {
    kivLogger logger;
    logger.flags = to_stdout | to_file;
    const stdout_redirection redirected;
    AddLogEntry(&logger, 0, "m", "nowhere");
    EXPECT_EQ(redirected.bytes(), "");
}

TEST(AddLogEntry, DoesNothingWithADestroyedLogger) {
    test_logger logger(to_file);
    logger.destroy();
    AddLogEntry(logger.get(), 1, "m", "late");
    EXPECT_EQ(read_file(logger.path()), "");
}

TEST(AddLogEntry, CutsAMessageAfter4094Bytes) {
    for (const std::size_t size : {4093U, 4094U, 4095U, 5000U}) {
        SCOPED_TRACE(size);
        test_logger logger(to_file);
        AddLogEntry(logger.get(), 1, "m", "%s", std::string(size, 'x').c_str());
        logger.destroy();
        const std::string message(std::min<std::size_t>(size, 4094), 'x');
        EXPECT_EQ(without_dates(read_file(logger.path())), " - [m] " + message + "\n");
    }
}

TEST(AddLogEntry, TakesAModuleNameOfAnyLength) {
    for (const std::size_t size : {0U, 200U, 300U, 10000U}) {
        SCOPED_TRACE(size);
        test_logger logger(to_file);
        const std::string module(size, 'm');
        const std::string message(4094, 'x');
        AddLogEntry(logger.get(), 1, module.c_str(), "%s", message.c_str());
        logger.destroy();
        std::string expected = " - [";
        expected.append(module).append("] ").append(message).append("\n");
        EXPECT_EQ(without_dates(read_file(logger.path())), expected);
    }
}

TEST(AddLogEntry, TakesNullForAnEmptyModuleOrMessage) {
    test_logger logger(to_file);
    const char* volatile none = nullptr; // volatile, as compilers warn of a null they see
    AddLogEntry(logger.get(), 1, none, none, 0);
    logger.destroy();
    EXPECT_EQ(without_dates(read_file(logger.path())), " - [] \n");
}

TEST(AddLogEntry, KeepsAZeroByteOfTheMessageInTheFile) {
    test_logger logger(to_file);
    AddLogEntry(logger.get(), 1, "m", "a%cb", 0);
    logger.destroy();
    EXPECT_EQ(without_dates(read_file(logger.path())), std::string(" - [m] a\0b\n", 11));
}

TEST(AddLogEntry, KeepsWhatCameBeforeAnArgumentThatCannotBeShown) {
    test_logger logger(to_file);
    const wchar_t unshowable[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
    AddLogEntry(logger.get(), 1, "m", "before %ls after", unshowable);
    logger.destroy();
    EXPECT_EQ(without_dates(read_file(logger.path())).substr(0, 14), " - [m] before ");
}

TEST(AddLogEntry, FlushesTheFileWithEveryEntry) {
    test_logger logger(to_file);
    AddLogEntry(logger.get(), 1, "m", "one");
    EXPECT_EQ(without_dates(read_file(logger.path())), " - [m] one\n");
}

TEST(AddLogEntry, GivesStandardOutputNoLineBreaksAndMakesNoFile) {
    const time_zone zone("UTC");
    const fake_time clock(morning);
    test_logger logger(to_stdout);
    const stdout_redirection redirected;
    AddLogEntry(logger.get(), 1, "m", "one");
    AddLogEntry(logger.get(), 1, "m", "two");
    EXPECT_EQ(redirected.bytes(), "03/07/2007 09:05:01 - [m] one03/07/2007 09:05:01 - [m] two");
    EXPECT_FALSE(std::filesystem::exists(logger.path()));
}

TEST(AddLogEntry, TakesOtherFlagBitsForNoTarget) {
    test_logger logger(~(to_stdout | to_file | 8));
    const stdout_redirection redirected;
    AddLogEntry(logger.get(), 1, "m", "nowhere");
    EXPECT_EQ(redirected.bytes(), "");
    EXPECT_FALSE(std::filesystem::exists(logger.path()));
}

TEST(AddLogEntry, SeesATimeZoneChangedWithinTheSecond) {
    const time_zone zone("UTC");
    const fake_time clock(morning);
    test_logger logger(to_file);
    AddLogEntry(logger.get(), 1, "m", "UTC");
    {
        const time_zone west("ABC3");
        AddLogEntry(logger.get(), 1, "m", "west");
    }
    AddLogEntry(logger.get(), 1, "m", "back");
    {
        const time_zone unsuited(std::string(200, 'x')); // longer than the library remembers
        AddLogEntry(logger.get(), 1, "m", "long");
        const time_zone east("ABC-3");
        AddLogEntry(logger.get(), 1, "m", "east");
    }
    logger.destroy();
    EXPECT_EQ(read_file(logger.path()), "03/07/2007 09:05:01 - [m] UTC\n"
                                        "03/07/2007 06:05:01 - [m] west\n"
                                        "03/07/2007 09:05:01 - [m] back\n"
                                        "03/07/2007 09:05:01 - [m] long\n"
                                        "03/07/2007 12:05:01 - [m] east\n");
}

// A single-threaded program changes its environment. NOLINTBEGIN(concurrency-mt-unsafe)
TEST(AddLogEntry, SeesATimeZoneThatIsSetRemovedOrChangedInPlace) {
    const time_zone restored("UTC");
    const fake_time clock(morning);
    test_logger logger(to_file);
    const auto hour_written = [&logger] {
        AddLogEntry(logger.get(), 1, "m", "x");
        const std::string text = read_file(logger.path());
        return text.substr(text.size() - 17, 2);
    };
    ::unsetenv("TZ");
    const std::string system_hour = hour_written();
    ::setenv("TZ", "ABC3", 1);
    EXPECT_EQ(hour_written(), "06");
    ::unsetenv("TZ");
    EXPECT_EQ(hour_written(), system_hour);

    // The number of variables stays the same.
    ::setenv("KIV_TEST_LAST", "x", 1);
    EXPECT_EQ(hour_written(), system_hour);
    ::unsetenv("KIV_TEST_LAST");
    ::setenv("TZ", "ABC4", 1);
    EXPECT_EQ(hour_written(), "05");

    char own[] = "TZ=ABC5";
    ::putenv(own);
    EXPECT_EQ(hour_written(), "04");
    own[6] = '6';
    EXPECT_EQ(hour_written(), "03");

    ::clearenv();
    EXPECT_EQ(hour_written(), system_hour);
    EXPECT_EQ(hour_written(), system_hour);
    ::setenv("KIV_TEST_LAST", "x", 1);
    ::unsetenv("KIV_TEST_LAST"); // which leaves an array without an entry
    EXPECT_EQ(hour_written(), system_hour);
    EXPECT_EQ(hour_written(), system_hour);
    ::setenv("TZ", "ABC3", 1);
    EXPECT_EQ(hour_written(), "06");
}
// NOLINTEND(concurrency-mt-unsafe)

TEST(AddLogEntry, SurvivesAYearBeyondTheCalendar) {
    const time_zone zone("UTC");
    const fake_time clock(std::time_t{1} << 60U);
    test_logger logger(to_file);
    AddLogEntry(logger.get(), 1, "m", "late");
    logger.destroy();
    EXPECT_NE(read_file(logger.path()).find(" - [m] late\n"), std::string::npos);
}

TEST(AddLogEntry, LosesAFullDiskAloneOfAllTargets) {
    const time_zone zone("UTC");
    const fake_time clock(morning);
    kivLogger logger;
    SetLoggerBasePath(&logger, "/dev");
    SetLoggerFile(&logger, "full");
    CreateLogger(&logger, 1, to_stdout | to_file);
    ASSERT_NE(logger.file, nullptr);
    const stdout_redirection redirected;
    AddLogEntry(&logger, 1, "m", "one");
    AddLogEntry(&logger, 1, "m", "two");
    EXPECT_EQ(redirected.bytes(), "03/07/2007 09:05:01 - [m] one03/07/2007 09:05:01 - [m] two");
    EXPECT_NE(std::ferror(logger.file), 0);
    DestroyLogger(&logger);
}

TEST(AddLogEntry, KeepsTheOrderWithWhatTheHostWritesToTheFile) {
    test_logger logger(to_file);
    std::FILE* const file = logger.record().file;
    AddLogEntry(logger.get(), 1, "m", "one");
    std::fputs("0123456789 host 89 - buffered\n", file);
    AddLogEntry(logger.get(), 1, "m", "two");
    EXPECT_EQ(without_dates(read_file(logger.path())), " - [m] one\n- buffered\n - [m] two\n");
}

TEST(AddLogEntry, LeavesTheFileReadableBetweenEntries) {
    test_logger logger(to_file);
    std::FILE* const file = logger.record().file;
    AddLogEntry(logger.get(), 1, "m", "%s", std::string(4000, 'x').c_str());
    AddLogEntry(logger.get(), 1, "m", "%s", std::string(4000, 'y').c_str());
    const std::string expected = read_file(logger.path());
    std::string seen;
    char bytes[100];
    for (long position = 0; seen.size() < expected.size(); position = std::ftell(file)) {
        ASSERT_EQ(std::fseek(file, position, SEEK_SET), 0);
        const std::size_t count = std::fread(bytes, 1, sizeof(bytes), file);
        ASSERT_NE(count, 0U);
        seen.append(bytes, count);
        const long read_to = std::ftell(file);
        AddLogEntry(logger.get(), 1, "m", "between");
        ASSERT_EQ(std::fseek(file, read_to, SEEK_SET), 0);
    }
    EXPECT_EQ(seen.substr(0, expected.size()), expected);
}

TEST(AddLogEntry, NeverMixesTheLinesOfSeveralThreads) {
    constexpr int threads = 8;
    constexpr int lines = 500;
    test_logger logger(to_file);
    std::list<std::thread> producers;
    for (int producer = 0; producer < threads; ++producer) {
        producers.emplace_back([&logger, producer] {
            for (int line = 0; line < lines; ++line) {
                AddLogEntry(logger.get(), 1, "m", "%d.%d", producer, line);
            }
        });
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    logger.destroy();
    const std::string text = without_dates(read_file(logger.path()));
    std::array<int, threads> next = {};
    std::size_t position = 0;
    int count = 0;
    for (; position < text.size(); ++count) {
        const int producer = text.at(position + 7) - '0';
        const std::string expected = " - [m] " + std::to_string(producer) + "." +
                                     std::to_string(next.at(static_cast<std::size_t>(producer))++) +
                                     "\n";
        ASSERT_EQ(text.substr(position, expected.size()), expected);
        position += expected.size();
    }
    EXPECT_EQ(count, threads * lines);
}

TEST(DumpLogString, AppendsALineBreakToTheCallersStringForTheFileOnly) {
    test_logger logger(to_stdout | to_file);
    const stdout_redirection redirected;
    std::string line = "whole line";
    DumpLogString(logger.get(), line, 1, /*flush=*/true);
    EXPECT_EQ(line, "whole line\n");
    EXPECT_EQ(redirected.bytes(), "whole line");
    EXPECT_EQ(read_file(logger.path()), "whole line\n");
}

TEST(DumpLogString, LeavesTheCallersStringAloneWithoutAFile) {
    test_logger logger(to_stdout);
    const stdout_redirection redirected;
    std::string line = "whole line";
    DumpLogString(logger.get(), line, 1, /*flush=*/true);
    EXPECT_EQ(line, "whole line");
}

TEST(DumpLogString, LeavesTheCallersStringAloneWhenTheFileCouldNotBeOpened) {
    kivLogger logger;
    SetLoggerBasePath(&logger, "/dev/null/nowhere");
    CreateLogger(&logger, 1, to_file);
    std::string line = "whole line";
    DumpLogString(&logger, line, 1, /*flush=*/true);
    EXPECT_EQ(line, "whole line");
    DestroyLogger(&logger);
}

TEST(DumpLogString, FiltersNothingByLevel) {
    test_logger logger(to_file, /*level=*/1);
    std::string line = "whole line";
    DumpLogString(logger.get(), line, 99, /*flush=*/true);
    EXPECT_EQ(read_file(logger.path()), "whole line\n");
}

TEST(DumpLogString, FlushesOnlyWhenAsked) {
    test_logger logger(to_stdout | to_file);
    const stdout_redirection redirected;
    std::string line = "one";
    DumpLogString(logger.get(), line, 1, /*flush=*/false);
    EXPECT_EQ(read_file(logger.path()), "");
    EXPECT_EQ(redirected.bytes(), "");
    line = "two";
    DumpLogString(logger.get(), line, 1, /*flush=*/true);
    EXPECT_EQ(read_file(logger.path()), "one\ntwo\n");
    EXPECT_EQ(redirected.bytes(), "onetwo");
}

TEST(DumpLogString, EndsAtAZeroByteOnStandardOutputButNotInTheFile) {
    test_logger logger(to_stdout | to_file);
    const stdout_redirection redirected;
    std::string line("a\0b", 3);
    DumpLogString(logger.get(), line, 1, /*flush=*/true);
    EXPECT_EQ(redirected.bytes(), "a");
    EXPECT_EQ(read_file(logger.path()), std::string("a\0b\n", 4));
}

TEST(DumpLogString, TreatsPercentSignsAsTextOnStandardOutputAndInTheFile) {
    test_logger logger(to_stdout | to_file);
    const stdout_redirection redirected;
    std::string line = "100%s %n";
    DumpLogString(logger.get(), line, 1, /*flush=*/true);
    EXPECT_EQ(redirected.bytes(), "100%s %n");
    EXPECT_EQ(read_file(logger.path()), "100%s %n\n");
}

TEST(DestroyLogger, ClosesTheFileButKeepsTheField) {
    test_logger logger(to_file);
    const std::FILE* const file = logger.record().file;
    logger.destroy(); // the fixture sees that the descriptor is closed
    EXPECT_EQ(logger.record().file, file);
}

TEST(DestroyLogger, IgnoresNullAndARecordThatIsNotCreated) {
    DestroyLogger(nullptr);
    kivLogger logger;
    DestroyLogger(&logger);
}

TEST(DestroyLogger, LeavesTheRecordReadyToBeCreatedAgain) {
    const temp_directory directory;
    kivLogger logger;
    SetLoggerBasePath(&logger, directory.path());
    for (const char* text : {"one", "two"}) {
        CreateLogger(&logger, 1, to_file);
        AddLogEntry(&logger, 1, "m", "%s", text);
        DestroyLogger(&logger);
    }
    EXPECT_EQ(without_dates(default_log(directory)), " - [m] one\n - [m] two\n");
}

} // namespace
