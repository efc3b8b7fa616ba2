#include "KivFramework/KivLogger.h"

#include "tests/support/temp_directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

using namespace KivFramework::KivLogger;

TEST(AddLogEntry, WritesEntriesOfTheThresholdAndBelow) {
    const kiv_test::temp_directory directory;
    kivLogger logger;
    SetLoggerBasePath(&logger, directory.path());
    CreateLogger(&logger, 2, 4);
    for (const int level : {1, 2, 3, -5}) {
        AddLogEntry(&logger, level, "m", "level %d", level);
    }
    DestroyLogger(&logger);
    const std::string text = kiv_test::read_file(directory.file("default.log"));
    constexpr std::size_t date_size = 19;
    ASSERT_EQ(text.size(), 3 * (date_size + sizeof(" - [m] level 1\n") - 1) + 1);
    EXPECT_EQ(text.substr(date_size, 15), " - [m] level 1\n");
    EXPECT_EQ(text.substr(text.size() - 16), " - [m] level -5\n");
}

TEST(DestroyLogger, WritesEverythingQueuedBeforeIt) {
    const kiv_test::temp_directory directory;
    kivLogger logger;
    SetLoggerBasePath(&logger, directory.path());
    CreateLogger(&logger, 2, 4);
    SetLoggerDetachedStatus(&logger, true);
    std::string expected;
    for (int i = 0; i < 5000; ++i) {
        AddLogEntry(&logger, 1, "m", "line %d", i);
    }
    DestroyLogger(&logger);
    const std::string text = kiv_test::read_file(directory.file("default.log"));
    EXPECT_NE(text.find("] line 4999\n"), std::string::npos);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 5000);
}

} // namespace
