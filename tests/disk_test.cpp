// Files on a file system that is full, that nobody may write to, or whose directory is gone.

#include "KivFramework/KivConfigFile.h"
#include "KivFramework/KivFileSystem.h"
#include "KivFramework/KivLibrary.h"
#include "KivFramework/KivLogger.h"

#include "tests/support/default_log.h"
#include "tests/support/fake_time.h"
#include "tests/support/small_file_system.h"
#include "tests/support/temp_directory.h"
#include "tests/support/test_logger.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

using namespace KivFramework;
using kiv_test::fake_time;
using kiv_test::read_file;
using kiv_test::small_file_system;
using kiv_test::stdout_redirection;
using kiv_test::temp_directory;
using kiv_test::time_zone;
using kiv_test::write_file;

constexpr int to_stdout = 2;
constexpr int to_file = 4;
constexpr int daily = 2;

constexpr std::size_t page = 4096;
constexpr std::size_t disk_size = 64 * page;

constexpr std::time_t day = 86400;
constexpr std::time_t march_7 = 1173277800; // 7 March 2007, 14:30:00 UTC

#define KIV_SKIP_WITHOUT(disk)                                                                     \
    if (!(disk).refusal().empty()) {                                                               \
        GTEST_SKIP() << (disk).refusal();                                                          \
    }                                                                                              \
    static_assert(true)

// A manager whose file takes some pages.
kivConfigManager large_manager() {
    kivConfigManager manager;
    for (int i = 0; i < 1000; ++i) {
        SetConfigValue(&manager, "section", ("key" + std::to_string(i)).c_str(),
                       std::string(20, 'x').c_str());
    }
    return manager;
}

// The file of a save that has room.
std::string saved_text(kivConfigManager& manager) {
    const temp_directory directory;
    EXPECT_TRUE(SaveConfigFile(&manager, directory.file("config").c_str()));
    return read_file(directory.file("config"));
}

TEST(SaveConfigFile, EndsWithTrueOnAFullDiskAndLeavesTheTextUpToThere) {
    const small_file_system disk(disk_size);
    KIV_SKIP_WITHOUT(disk);
    const time_zone zone("UTC");
    const fake_time clock(march_7);
    kivConfigManager manager = large_manager();
    const kivConfigManager before = manager;
    disk.fill(2 * page);
    EXPECT_TRUE(SaveConfigFile(&manager, disk.file("config").c_str()));
    EXPECT_EQ(read_file(disk.file("config")), saved_text(manager).substr(0, 2 * page));
    EXPECT_EQ(manager.values, before.values);
}

TEST(SaveConfigFile, SavesEverythingOnceTheFullDiskHasRoomAndTheCutFileIsGone) {
    const small_file_system disk(disk_size);
    KIV_SKIP_WITHOUT(disk);
    kivConfigManager manager = large_manager();
    const std::string path = disk.file("config");
    disk.fill(page);
    EXPECT_TRUE(SaveConfigFile(&manager, path.c_str()));
    disk.make_room();
    ASSERT_EQ(::unlink(path.c_str()), 0);
    EXPECT_TRUE(SaveConfigFile(&manager, path.c_str()));
    kivConfigManager loaded;
    EXPECT_TRUE(LoadConfigFile(&loaded, path.c_str()));
    EXPECT_EQ(loaded.values, manager.values);
}

TEST(SaveConfigFile, EndsWithTrueWhereNotOneByteFits) {
    const small_file_system disk(disk_size);
    KIV_SKIP_WITHOUT(disk);
    kivConfigManager manager = large_manager();
    write_file(disk.file("config"), "");
    disk.fill();
    EXPECT_TRUE(SaveConfigFile(&manager, disk.file("config").c_str()));
    EXPECT_EQ(read_file(disk.file("config")), "");
}

TEST(SaveConfigFile, ReturnsFalseWhereNoFileCanBeMade) {
    const small_file_system disk(disk_size, /*most_files=*/2);
    KIV_SKIP_WITHOUT(disk);
    write_file(disk.file("other"), "");
    kivConfigManager manager = large_manager();
    EXPECT_FALSE(SaveConfigFile(&manager, disk.file("config").c_str()));
    EXPECT_FALSE(std::filesystem::exists(disk.file("config")));
}

TEST(SaveConfigFile, ReturnsFalseAndKeepsTheFileOnAReadOnlyDisk) {
    const small_file_system disk(disk_size);
    KIV_SKIP_WITHOUT(disk);
    const kiv_test::default_log log;
    write_file(disk.file("config"), "[a]\nb = 1\n");
    disk.make_read_only();
    kivConfigManager manager;
    EXPECT_TRUE(LoadConfigFile(&manager, disk.file("config").c_str()));
    SetConfigValue(&manager, "a", "b", 2L);
    EXPECT_FALSE(SaveConfigFile(&manager, disk.file("config").c_str()));
    EXPECT_FALSE(SaveConfigFile(&manager, disk.file("new").c_str()));
    EXPECT_EQ(read_file(disk.file("config")), "[a]\nb = 1\n");
    EXPECT_EQ(log.text(), "");
}

TEST(SaveConfigFile, ReturnsFalseInARemovedDirectory) {
    const temp_directory directory;
    ASSERT_TRUE(std::filesystem::create_directory(directory.file("gone")));
    kivConfigManager manager = large_manager();
    const std::string path = directory.file("gone/config");
    EXPECT_TRUE(SaveConfigFile(&manager, path.c_str()));
    std::filesystem::remove_all(directory.file("gone"));
    EXPECT_FALSE(SaveConfigFile(&manager, path.c_str()));
    EXPECT_FALSE(LoadConfigFile(&manager, path.c_str()));
    EXPECT_EQ(manager.values.size(), 1000U);
}

// A logger with its file on a small disk, and a line of its own on standard output for each entry.
class logger_on {
public:
    explicit logger_on(const small_file_system& disk, int flags = to_file)
        : path_(disk.file("default.log")) {
        KivLogger::SetLoggerBasePath(&record_, disk.path());
        KivLogger::CreateLogger(&record_, 1, flags);
    }
    ~logger_on() { KivLogger::DestroyLogger(&record_); }
    logger_on(const logger_on&) = delete;
    logger_on& operator=(const logger_on&) = delete;

    kivLogger* get() { return &record_; }

    void add(const std::string& message) {
        KivLogger::AddLogEntry(&record_, 1, "m", "%s", message.c_str());
    }

    /// Adds until the file grows no more, and then some.
    void add_beyond_the_end(const small_file_system& disk) {
        const std::string message(100, 'x');
        for (std::size_t i = 0; i < 2 * disk_size / message.size(); ++i) {
            add(message);
        }
        EXPECT_EQ(std::filesystem::space(disk.path()).available, 0U);
    }

    /// The file's text after everything has been written to it.
    std::string text() {
        KivLogger::FlushDetachedThread(&record_);
        KivProcesses::LockMutex(record_.lock);
        if (record_.file != nullptr) {
            std::fflush(record_.file);
        }
        KivProcesses::UnlockMutex(record_.lock);
        return read_file(path_);
    }

private:
    kivLogger record_;
    std::string path_;
};

bool ends_with(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

TEST(AddLogEntry, GoesOnInTheFileOnceAFullDiskHasRoom) {
    for (const bool detached : {false, true}) {
        SCOPED_TRACE(detached ? "detached" : "synchronous");
        const small_file_system disk(disk_size);
        KIV_SKIP_WITHOUT(disk);
        const time_zone zone("UTC");
        const fake_time clock(march_7);
        disk.fill(4 * page);
        logger_on logger(disk);
        KivLogger::SetLoggerDetachedStatus(logger.get(), detached);
        logger.add("before");
        logger.add_beyond_the_end(disk);
        EXPECT_EQ(logger.text().size(), 4 * page);
        disk.make_room();
        logger.add("after");
        logger.add("and on");
        const std::string text = logger.text();
        EXPECT_EQ(text.find("03/07/2007 14:30:00 - [m] before\n"), 0U);
        EXPECT_TRUE(ends_with(text, "03/07/2007 14:30:00 - [m] after\n"
                                    "03/07/2007 14:30:00 - [m] and on\n"))
            << text.substr(text.size() - 300);
    }
}

TEST(AddLogEntry, GivesTheOtherTargetsEveryEntryWhileTheDiskIsFull) {
    const small_file_system disk(disk_size);
    KIV_SKIP_WITHOUT(disk);
    disk.fill();
    logger_on logger(disk, to_stdout | to_file);
    const stdout_redirection output;
    for (int i = 0; i < 100; ++i) {
        logger.add("entry");
    }
    EXPECT_EQ(logger.text(), "");
    std::size_t found = 0;
    const std::string shown = output.bytes();
    for (std::size_t at = 0; (at = shown.find("- [m] entry", at)) != std::string::npos; ++at) {
        ++found;
    }
    EXPECT_EQ(found, 100U);
}

TEST(DestroyLogger, EndsADetachedWriterWhoseDiskIsFull) {
    const small_file_system disk(disk_size);
    KIV_SKIP_WITHOUT(disk);
    disk.fill();
    logger_on logger(disk);
    KivLogger::SetLoggerDetachedStatus(logger.get(), true);
    for (int i = 0; i < 2000; ++i) {
        logger.add(std::string(100, 'x'));
    }
}

TEST(CheckLogRotation, MovesTheFileOfAFullDiskAsAnyOther) {
    const small_file_system disk(disk_size);
    KIV_SKIP_WITHOUT(disk);
    const time_zone zone("UTC");
    fake_time clock(march_7);
    disk.fill(page);
    logger_on logger(disk);
    KivLogger::SetLoggerRotation(logger.get(), daily);
    logger.add("old");
    logger.add_beyond_the_end(disk);
    clock.set(march_7 + day);
    logger.add("lost");
    EXPECT_EQ(read_file(disk.file("03.07.2007.default.log")).size(), page);
    EXPECT_EQ(logger.text(), "");
    disk.make_room();
    logger.add("new");
    EXPECT_EQ(logger.text(), "03/08/2007 14:30:00 - [m] new\n");
}

TEST(CheckLogRotation, SilencesTheFileUntilTheLoggerIsCreatedAgainWhereNoFileCanBeMade) {
    const small_file_system disk(disk_size, /*most_files=*/2);
    KIV_SKIP_WITHOUT(disk);
    const time_zone zone("UTC");
    fake_time clock(march_7);
    logger_on logger(disk, to_stdout | to_file);
    const stdout_redirection output;
    KivLogger::SetLoggerRotation(logger.get(), daily);
    logger.add("old");
    clock.set(march_7 + day);
    logger.add("silent");
    EXPECT_EQ(logger.get()->file, nullptr);
    ASSERT_TRUE(std::filesystem::remove(disk.file("03.07.2007.default.log")));
    logger.add("still silent");
    EXPECT_FALSE(std::filesystem::exists(disk.file("default.log")));
    EXPECT_NE(output.bytes().find("still silent"), std::string::npos);

    KivLogger::DestroyLogger(logger.get());
    KivLogger::CreateLogger(logger.get(), 1, to_file);
    logger.add("heard");
    EXPECT_EQ(logger.text(), "03/08/2007 14:30:00 - [m] heard\n");
}

TEST(CreateLogger, LeavesTheFileSilentOnAReadOnlyDisk) {
    const small_file_system disk(disk_size);
    KIV_SKIP_WITHOUT(disk);
    write_file(disk.file("default.log"), "01/31/2007 23:59:58 - [m] old\n");
    disk.make_read_only();
    const stdout_redirection output;
    logger_on logger(disk, to_stdout | to_file);
    EXPECT_EQ(logger.get()->file, nullptr);
    EXPECT_EQ(logger.get()->period_start.tm_mday, 31); // which reading alone can tell
    logger.add("shown");
    EXPECT_NE(output.bytes().find("shown"), std::string::npos);
    EXPECT_EQ(read_file(disk.file("default.log")), "01/31/2007 23:59:58 - [m] old\n");
}

TEST(CreateLogger, LeavesTheFileSilentWhereItsDirectoryCannotBeMade) {
    const small_file_system disk(disk_size);
    KIV_SKIP_WITHOUT(disk);
    disk.make_read_only();
    kivLogger logger;
    KivLogger::SetLoggerBasePath(&logger, disk.file("missing"));
    KivLogger::CreateLogger(&logger, 1, to_file);
    EXPECT_EQ(logger.file, nullptr);
    KivLogger::AddLogEntry(&logger, 1, "m", "nowhere");
    KivLogger::DestroyLogger(&logger);
}

TEST(AddLogEntry, GoesOnInTheOpenFileOfARemovedDirectoryUntilItRotates) {
    for (const bool detached : {false, true}) {
        SCOPED_TRACE(detached ? "detached" : "synchronous");
        const time_zone zone("UTC");
        fake_time clock(march_7);
        const temp_directory directory;
        kivLogger logger;
        KivLogger::SetLoggerBasePath(&logger, directory.file("log"));
        KivLogger::CreateLogger(&logger, 1, to_file);
        KivLogger::SetLoggerRotation(&logger, daily);
        KivLogger::SetLoggerDetachedStatus(&logger, detached);
        std::filesystem::remove_all(directory.file("log"));
        KivLogger::AddLogEntry(&logger, 1, "m", "unseen");
        KivLogger::FlushDetachedThread(&logger);
        EXPECT_NE(logger.file, nullptr);
        clock.set(march_7 + day);
        KivLogger::AddLogEntry(&logger, 1, "m", "lost");
        KivLogger::FlushDetachedThread(&logger);
        KivLogger::DestroyLogger(&logger);
        EXPECT_EQ(logger.file, nullptr);

        // The next creation makes the directory again.
        KivLogger::CreateLogger(&logger, 1, to_file);
        KivLogger::AddLogEntry(&logger, 1, "m", "back");
        KivLogger::DestroyLogger(&logger);
        EXPECT_EQ(read_file(directory.file("log/default.log")), "03/08/2007 14:30:00 - [m] back\n");
    }
}

TEST(MoveFile, IsFalseAndKeepsBothFilesOnAReadOnlyDisk) {
    const small_file_system disk(disk_size);
    KIV_SKIP_WITHOUT(disk);
    write_file(disk.file("from"), "1");
    write_file(disk.file("to"), "2");
    disk.make_read_only();
    EXPECT_FALSE(KivFileSystem::MoveFile(disk.file("from"), disk.file("to")));
    EXPECT_EQ(read_file(disk.file("from")), "1");
    EXPECT_EQ(read_file(disk.file("to")), "2");
}

TEST(MakeDirectory, IsFalseOnAFullAndOnAReadOnlyDisk) {
    const small_file_system full(disk_size, /*most_files=*/2);
    KIV_SKIP_WITHOUT(full);
    EXPECT_FALSE(KivFileSystem::MakeDirectory(full.file("a/b"), /*recursive=*/true));
    EXPECT_TRUE(KivFileSystem::CheckDirectory(full.file("a")));
    const small_file_system read_only(disk_size);
    read_only.make_read_only();
    EXPECT_FALSE(KivFileSystem::MakeDirectory(read_only.file("a"), /*recursive=*/false));
    EXPECT_FALSE(KivFileSystem::MakeDirectory(read_only.file("a/b"), /*recursive=*/true));
}

} // namespace
