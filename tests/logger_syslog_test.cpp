#include "KivFramework/KivLogger.h"

#include "tests/support/fake_system_log.h"
#include "tests/support/fake_time.h"
#include "tests/support/test_logger.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <syslog.h>

namespace {

using namespace KivFramework::KivLogger;
using kiv_test::fake_system_log;
using kiv_test::fake_time;
using kiv_test::read_file;
using kiv_test::stdout_redirection;
using kiv_test::test_logger;
using kiv_test::time_zone;

constexpr int to_stdout = 2;
constexpr int to_file = 4;
constexpr int to_system_log = 8;
constexpr std::time_t morning = 1173258301; // 7 March 2007, 09:05:01 UTC

TEST(CreateLogger, OpensTheSystemLogWithIdentityPidAndConsole) {
    const fake_system_log log;
    test_logger logger(to_system_log);
    ASSERT_EQ(log.openings().size(), 1U);
    EXPECT_STREQ(log.openings().front().identity, "kivUtilsLog");
    EXPECT_EQ(log.openings().front().options, 3);
    EXPECT_EQ(log.openings().front().options, LOG_PID | LOG_CONS);
}

TEST(CreateLogger, LeavesTheSystemLogAloneWithoutThatTarget) {
    const fake_system_log log;
    test_logger logger(to_stdout | to_file);
    const stdout_redirection redirected;
    AddLogEntry(logger.get(), 1, "m", "text");
    logger.destroy();
    EXPECT_TRUE(log.openings().empty());
    EXPECT_TRUE(log.entries().empty());
    EXPECT_EQ(log.closings(), 0);
}

TEST(CreateLogger, GivesTheSystemLogAnIdentityThatOutlivesTheRecordsString) {
    const fake_system_log log;
    test_logger logger(to_system_log);
    SetLoggerIdentity(logger.get(), "a text long enough to move the string to the heap");
    SetLoggerIdentity(logger.get(), "");
    EXPECT_STREQ(log.openings().front().identity, "kivUtilsLog");
    logger.destroy();
    EXPECT_STREQ(log.openings().front().identity, "kivUtilsLog");
}

TEST(CreateLogger, TakesTheDaemonFacilityWhenNoneIsSet) {
    const fake_system_log log;
    test_logger logger(to_system_log);
    EXPECT_EQ(log.openings().front().facility, 24);
    EXPECT_EQ(log.openings().front().facility, LOG_DAEMON);
    EXPECT_EQ(logger.record().facility, LOG_DAEMON);
}

TEST(CreateLogger, LeavesTheFacilityUnsetWithoutTheSystemLog) {
    test_logger logger(0);
    EXPECT_EQ(logger.record().facility, -1);
}

TEST(SetLoggerFacility, ReachesTheSystemLogAsItIs) {
    for (const int number : {0, 3, 7, -5}) {
        const fake_system_log log;
        const kiv_test::temp_directory directory;
        kivLogger logger;
        SetLoggerBasePath(&logger, directory.path());
        SetLoggerFacility(&logger, number);
        CreateLogger(&logger, 1, to_system_log);
        DestroyLogger(&logger);
        EXPECT_EQ(log.openings().front().facility, 128 + number);
    }
}

TEST(SetLoggerFacility, OfMinus129CountsAsUnset) {
    const fake_system_log log;
    const kiv_test::temp_directory directory;
    kivLogger logger;
    SetLoggerBasePath(&logger, directory.path());
    SetLoggerFacility(&logger, -129);
    CreateLogger(&logger, 1, to_system_log);
    DestroyLogger(&logger);
    EXPECT_EQ(log.openings().front().facility, LOG_DAEMON);
}

TEST(AddLogEntry, GivesTheSystemLogThePriorityOfTheThreshold) {
    struct priority_case {
        int threshold;
        int priority;
    };
    const priority_case cases[] = {
        {1, LOG_NOTICE}, {3, LOG_NOTICE}, {4, LOG_DEBUG}, {0, LOG_INFO},
        {2, LOG_INFO},   {5, LOG_INFO},   {99, LOG_INFO}, {-3, LOG_INFO},
    };
    for (const auto& [threshold, priority] : cases) {
        SCOPED_TRACE(threshold);
        const fake_system_log log;
        test_logger logger(to_system_log, threshold);
        for (const int level : {threshold, threshold - 1, -10}) {
            AddLogEntry(logger.get(), level, "m", "text");
        }
        ASSERT_EQ(log.entries().size(), 3U);
        for (const fake_system_log::entry& entry : log.entries()) {
            EXPECT_EQ(entry.priority, priority);
        }
    }
}

TEST(AddLogEntry, GivesTheSystemLogTheLineAsItsFormat) {
    const time_zone zone("UTC");
    const fake_time clock(morning);
    const fake_system_log log;
    test_logger logger(to_system_log);
    AddLogEntry(logger.get(), 1, "m", "100%% of %%s");
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_EQ(log.entries().front().format, "03/07/2007 09:05:01 - [m] 100% of %s");
}

TEST(AddLogEntry, VisitsStandardOutputThenTheSystemLogThenTheFile) {
    fake_system_log log;
    test_logger logger(to_stdout | to_file | to_system_log);
    const stdout_redirection redirected;
    std::string shown;
    std::string written;
    log.on_entry([&](const fake_system_log::entry&) {
        shown = redirected.bytes();
        written = read_file(logger.path());
    });
    AddLogEntry(logger.get(), 1, "m", "text");
    EXPECT_EQ(shown.substr(19), " - [m] text");
    EXPECT_EQ(written, "");
    EXPECT_EQ(read_file(logger.path()), shown + "\n");
}

TEST(AddLogEntry, LogsToTheSystemLogWhenTheFileCannotBeOpened) {
    const fake_system_log log;
    kivLogger logger;
    SetLoggerBasePath(&logger, "/dev/null/nowhere");
    CreateLogger(&logger, 1, to_file | to_system_log);
    AddLogEntry(&logger, 1, "m", "text");
    DestroyLogger(&logger);
    EXPECT_EQ(log.entries().size(), 1U);
}

TEST(DumpLogString, GivesTheSystemLogThePriorityOfItsOwnLevel) {
    const fake_system_log log;
    test_logger logger(to_system_log, /*level=*/1);
    std::string line = "whole line";
    DumpLogString(logger.get(), line, 4, /*flush=*/true);
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_EQ(log.entries().front().priority, LOG_DEBUG);
    EXPECT_EQ(log.entries().front().format, "whole line");
    EXPECT_EQ(line, "whole line");
}

TEST(SetLoggerDetachedStatus, LeavesThePriorityToTheThreshold) {
    const fake_system_log log;
    test_logger logger(to_system_log, /*level=*/4);
    SetLoggerDetachedStatus(logger.get(), true);
    AddLogEntry(logger.get(), 1, "m", "text");
    logger.destroy();
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_EQ(log.entries().front().priority, LOG_DEBUG);
}

TEST(DestroyLogger, ClosesTheSystemLogItOpened) {
    const fake_system_log log;
    test_logger logger(to_system_log);
    EXPECT_EQ(log.closings(), 0);
    logger.destroy();
    EXPECT_EQ(log.closings(), 1);
}

} // namespace
