#include "KivFramework/KivFileSystem.h"

#include "tests/support/temp_directory.h"
#include "tests/support/transfers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace KivFramework::KivFileSystem;
using kiv_test::temp_directory;
using kiv_test::write_file;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr long long gibibyte = 1LL << 30;

// Makes a file that has this size and occupies next to nothing.
std::string sparse_file(const temp_directory& directory, long long size) {
    std::string path = directory.file("sparse");
    write_file(path, "");
    EXPECT_EQ(::truncate(path.c_str(), size), 0);
    return path;
}

void set_modification(const std::string& path, time_t seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

mode_t mode_of(const std::string& path) {
    struct stat facts {};
    EXPECT_EQ(::stat(path.c_str(), &facts), 0);
    return facts.st_mode & ~static_cast<mode_t>(S_IFMT);
}

bool exists(const std::string& path) {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

// Lives in that directory until the end of the scope.
class working_directory {
public:
    explicit working_directory(const std::string& path)
        : previous_(std::filesystem::current_path()) {
        std::filesystem::current_path(path);
    }
    ~working_directory() { std::filesystem::current_path(previous_); }
    working_directory(const working_directory&) = delete;
    working_directory& operator=(const working_directory&) = delete;

private:
    std::filesystem::path previous_;
};

// Runs `statement` in a child that is an ordinary user, and returns what it returned.
template <typename function>
bool as_ordinary_user(function statement) {
    constexpr uid_t nobody = 65534;
    const pid_t child = ::fork();
    if (child == 0) {
        if (::geteuid() == 0 && ::setuid(nobody) == -1) {
            ::_exit(2);
        }
        ::_exit(statement() ? 1 : 0);
    }
    int status = 0;
    EXPECT_EQ(kiv_test::wait_for_child(child, &status), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) < 2);
    return WEXITSTATUS(status) == 1;
}

std::vector<std::string> files_of(const std::string& path) {
    std::vector<std::string> names;
    kivDirectory directory;
    directory.path = path;
    for (bool found = EnumDirFirstFile(&directory, false); found;
         found = EnumDirNextFile(&directory)) {
        names.push_back(directory.name);
    }
    EnumDirClose(&directory);
    return names;
}

std::vector<std::string> directories_of(const std::string& path) {
    std::vector<std::string> names;
    kivDirectory directory;
    directory.path = path;
    for (bool found = EnumDirGetFirstDir(&directory); found;
         found = EnumDirGetNextDir(&directory)) {
        names.push_back(directory.name);
    }
    EnumDirClose(&directory);
    return names;
}

// A directory with one entry of every kind that a test can make.
void fill_with_all_kinds(const temp_directory& directory) {
    write_file(directory.file("file"), "text");
    ASSERT_EQ(::mkdir(directory.file("directory").c_str(), 0700), 0);
    ASSERT_EQ(::mkfifo(directory.file("fifo").c_str(), 0600), 0);
    ASSERT_EQ(::symlink("file", directory.file("link to file").c_str()), 0);
    ASSERT_EQ(::symlink("directory", directory.file("link to directory").c_str()), 0);
    ASSERT_EQ(::symlink("missing", directory.file("link to nothing").c_str()), 0);
    ASSERT_EQ(::symlink("/dev/null", directory.file("link to device").c_str()), 0);
}

TEST(kivDirectoryRecord, HasItsFieldsInTheirPlaces) {
    EXPECT_EQ(offsetof(kivDirectory, handle), 0U);
    EXPECT_EQ(offsetof(kivDirectory, name), sizeof(DIR*));
    EXPECT_EQ(offsetof(kivDirectory, path), sizeof(DIR*) + sizeof(std::string));
    EXPECT_EQ(sizeof(kivDirectory), sizeof(DIR*) + 2 * sizeof(std::string));
    EXPECT_TRUE((std::is_same_v<kivDirectory, KivFramework::kivDirectory>));
}

TEST(kivDirectoryRecord, StartsClosedAndEmpty) {
    const kivDirectory directory;
    EXPECT_EQ(directory.handle, nullptr);
    EXPECT_EQ(directory.name, "");
    EXPECT_EQ(directory.path, "");
}

TEST(GetFileLastMod, GivesTheModificationTime) {
    const temp_directory directory;
    const std::string path = directory.file("file");
    write_file(path, "text");
    set_modification(path, 1000000000);
    EXPECT_EQ(GetFileLastMod(path.c_str()), 1000000000);
    set_modification(path, -86400);
    EXPECT_EQ(GetFileLastMod(path.c_str()), -86400);
}

TEST(GetFileLastMod, KeepsTheLow32BitsOfALateTime) {
    const temp_directory directory;
    const std::string path = directory.file("file");
    write_file(path, "text");
    set_modification(path, (1LL << 32) + 5);
    EXPECT_EQ(GetFileLastMod(path.c_str()), 5);
}

TEST(GetFileLastMod, IsMinusOneWithoutAFile) {
    EXPECT_EQ(GetFileLastMod("/no such file"), -1);
    EXPECT_EQ(GetFileLastMod(""), -1);
    EXPECT_EQ(GetFileLastMod(nullptr), -1);
}

TEST(GetFileCreation, GivesTheStatusChangeTime) {
    const temp_directory directory;
    const std::string path = directory.file("file");
    write_file(path, "text");
    set_modification(path, 1000000000);
    struct stat facts {};
    ASSERT_EQ(::stat(path.c_str(), &facts), 0);
    ASSERT_NE(facts.st_ctime, facts.st_mtime);
    EXPECT_EQ(GetFileCreation(path.c_str()), facts.st_ctime);
}

TEST(GetFileCreation, IsMinusOneWithoutAFile) {
    EXPECT_EQ(GetFileCreation("/no such file"), -1);
    EXPECT_EQ(GetFileCreation(nullptr), -1);
}

TEST(GetFileSize, GivesTheBytes) {
    const temp_directory directory;
    const std::string path = directory.file("file");
    write_file(path, "12345");
    EXPECT_EQ(GetFileSize(path.c_str()), 5);
    write_file(path, "");
    EXPECT_EQ(GetFileSize(path.c_str()), 0);
}

TEST(GetFileSize, KeepsTheLow32BitsOfALargeSize) {
    const temp_directory directory;
    EXPECT_EQ(GetFileSize(sparse_file(directory, 2 * gibibyte - 1).c_str()), 2147483647);
    EXPECT_EQ(GetFileSize(sparse_file(directory, 3 * gibibyte).c_str()), -1073741824);
    EXPECT_EQ(GetFileSize(sparse_file(directory, 4 * gibibyte).c_str()), 0);
    EXPECT_EQ(GetFileSize(sparse_file(directory, 5 * gibibyte).c_str()), 1073741824);
    EXPECT_EQ(GetFileSize(sparse_file(directory, 5 * gibibyte + 7).c_str()), 1073741831);
}

TEST(GetFileSize, FollowsSymbolicLinks) {
    const temp_directory directory;
    write_file(directory.file("file"), "a text longer than the link's own");
    ASSERT_EQ(::symlink("file", directory.file("link").c_str()), 0);
    EXPECT_EQ(GetFileSize(directory.file("link").c_str()), 33);
}

TEST(GetFileSize, IsMinusOneWithoutAFile) {
    const temp_directory directory;
    ASSERT_EQ(::symlink("missing", directory.file("link").c_str()), 0);
    EXPECT_EQ(GetFileSize(directory.file("link").c_str()), -1);
    EXPECT_EQ(GetFileSize("/no such file"), -1);
    EXPECT_EQ(GetFileSize(nullptr), -1);
}

TEST(CheckFile, IsTrueForWhatCanBeOpenedForReading) {
    const temp_directory directory;
    write_file(directory.file("file"), "");
    ASSERT_EQ(::symlink("file", directory.file("link").c_str()), 0);
    EXPECT_TRUE(CheckFile(directory.file("file")));
    EXPECT_TRUE(CheckFile(directory.file("link")));
    EXPECT_TRUE(CheckFile("/dev/null"));
}

TEST(CheckFile, IsTrueForADirectory) {
    EXPECT_TRUE(CheckFile("/tmp"));
}

TEST(CheckFile, IsFalseForWhatIsNotThere) {
    const temp_directory directory;
    ASSERT_EQ(::symlink("missing", directory.file("link").c_str()), 0);
    EXPECT_FALSE(CheckFile(directory.file("missing")));
    EXPECT_FALSE(CheckFile(directory.file("link")));
    EXPECT_FALSE(CheckFile(""));
}

TEST(CheckFile, IsFalseForWhatTheUserMayNotRead) {
    const temp_directory directory;
    ASSERT_EQ(::chmod(directory.path().c_str(), 0755), 0);
    write_file(directory.file("open"), "");
    write_file(directory.file("secret"), "");
    ASSERT_EQ(::chmod(directory.file("open").c_str(), 0444), 0);
    ASSERT_EQ(::chmod(directory.file("secret").c_str(), 0), 0);
    EXPECT_TRUE(as_ordinary_user([&] { return CheckFile(directory.file("open")); }));
    EXPECT_FALSE(as_ordinary_user([&] { return CheckFile(directory.file("secret")); }));
}

TEST(CheckDirectory, IsTrueForDirectoriesOnly) {
    const temp_directory directory;
    write_file(directory.file("file"), "");
    ASSERT_EQ(::symlink(".", directory.file("link").c_str()), 0);
    EXPECT_TRUE(CheckDirectory(directory.path()));
    EXPECT_TRUE(CheckDirectory(directory.file("link")));
    EXPECT_FALSE(CheckDirectory(directory.file("file")));
    EXPECT_FALSE(CheckDirectory(directory.file("missing")));
    EXPECT_FALSE(CheckDirectory(""));
}

TEST(CheckDirectory, IsFalseForWhatTheUserMayNotList) {
    const temp_directory directory;
    ASSERT_EQ(::chmod(directory.path().c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(directory.file("secret").c_str(), 0), 0);
    EXPECT_TRUE(as_ordinary_user([&] { return CheckDirectory(directory.path()); }));
    EXPECT_FALSE(as_ordinary_user([&] { return CheckDirectory(directory.file("secret")); }));
}

TEST(MoveFile, GivesTheFileItsNewName) {
    const temp_directory directory;
    write_file(directory.file("a"), "text");
    EXPECT_TRUE(MoveFile(directory.file("a"), directory.file("b")));
    EXPECT_FALSE(exists(directory.file("a")));
    EXPECT_EQ(kiv_test::read_file(directory.file("b")), "text");
}

TEST(MoveFile, ReplacesAnExistingTarget) {
    const temp_directory directory;
    write_file(directory.file("a"), "new");
    write_file(directory.file("b"), "old");
    EXPECT_TRUE(MoveFile(directory.file("a"), directory.file("b")));
    EXPECT_EQ(kiv_test::read_file(directory.file("b")), "new");
}

TEST(MoveFile, RemovesTheTargetEvenWhenTheRenameFails) {
    const temp_directory directory;
    write_file(directory.file("b"), "old");
    EXPECT_FALSE(MoveFile(directory.file("a"), directory.file("b")));
    EXPECT_FALSE(exists(directory.file("b")));
}

TEST(MoveFile, LosesAFileMovedToItsOwnName) {
    const temp_directory directory;
    write_file(directory.file("a"), "text");
    EXPECT_FALSE(MoveFile(directory.file("a"), directory.file("a")));
    EXPECT_FALSE(exists(directory.file("a")));
}

TEST(MoveFile, KeepsADirectoryThatIsTheTarget) {
    const temp_directory directory;
    write_file(directory.file("a"), "text");
    ASSERT_EQ(::mkdir(directory.file("b").c_str(), 0700), 0);
    EXPECT_FALSE(MoveFile(directory.file("a"), directory.file("b")));
    EXPECT_TRUE(exists(directory.file("a")));
    EXPECT_TRUE(exists(directory.file("b")));
}

TEST(MakeDirectory, MakesOneDirectoryForItsOwnerOnly) {
    const temp_directory directory;
    const mode_t previous_mask = ::umask(0);
    EXPECT_TRUE(MakeDirectory(directory.file("a"), false));
    EXPECT_EQ(mode_of(directory.file("a")), 0700U);
    EXPECT_TRUE(MakeDirectory(directory.file("b/c"), true));
    EXPECT_EQ(mode_of(directory.file("b")), 0700U);
    EXPECT_EQ(mode_of(directory.file("b/c")), 0700U);
    ::umask(previous_mask);
}

TEST(MakeDirectory, ReturnsFalseForAnExistingDirectory) {
    const temp_directory directory;
    EXPECT_FALSE(MakeDirectory(directory.path(), false));
    EXPECT_FALSE(MakeDirectory(directory.path(), true));
}

TEST(MakeDirectory, MakesNoParentsUnlessRecursive) {
    const temp_directory directory;
    EXPECT_FALSE(MakeDirectory(directory.file("a/b"), false));
    EXPECT_FALSE(exists(directory.file("a")));
}

TEST(MakeDirectory, MakesEveryMissingLevelWhenRecursive) {
    const temp_directory directory;
    ASSERT_EQ(::mkdir(directory.file("a").c_str(), 0700), 0);
    EXPECT_TRUE(MakeDirectory(directory.file("a/b/c"), true));
    EXPECT_TRUE(CheckDirectory(directory.file("a/b/c")));
    EXPECT_FALSE(MakeDirectory(directory.file("a/b/c"), true)); // it exists now
}

TEST(MakeDirectory, SkipsEmptyPartsWhenRecursive) {
    const temp_directory directory;
    const working_directory here(directory.path());
    EXPECT_TRUE(MakeDirectory("a//b/", true));
    EXPECT_TRUE(CheckDirectory(directory.file("a/b")));
    EXPECT_TRUE(MakeDirectory("//" + directory.file("c///d//"), true));
    EXPECT_TRUE(CheckDirectory(directory.file("c/d")));
}

TEST(MakeDirectory, ReturnsFalseWhenThereIsNoPartToMake) {
    EXPECT_FALSE(MakeDirectory("", true));
    EXPECT_FALSE(MakeDirectory("/", true));
    EXPECT_FALSE(MakeDirectory("///", true));
    EXPECT_FALSE(MakeDirectory("", false));
}

TEST(MakeDirectory, LetsTheLastLevelAloneDecide) {
    const temp_directory directory;
    // The new level is made, but the last part names what exists.
    EXPECT_FALSE(MakeDirectory(directory.file("a/."), true));
    EXPECT_TRUE(CheckDirectory(directory.file("a")));
    // The level above fails, as it does when it exists, and the last one is made.
    EXPECT_TRUE(MakeDirectory(directory.file("a/b"), true));
}

TEST(MakeDirectory, ReturnsFalseBelowAFile) {
    const temp_directory directory;
    write_file(directory.file("file"), "");
    EXPECT_FALSE(MakeDirectory(directory.file("file/a/b"), true));
}

TEST(MakeDirectory, DoublesTheTwoBackslashesOfANetworkPath) {
    const temp_directory directory;
    const working_directory here(directory.path());
    EXPECT_TRUE(MakeDirectory(R"(\\server/share)", true));
    EXPECT_TRUE(CheckDirectory(directory.file(R"(\\\\server/share)")));
    EXPECT_FALSE(exists(directory.file(R"(\\server)")));
    EXPECT_TRUE(MakeDirectory(R"(\one/share)", true)); // a single one is a letter of the name
    EXPECT_TRUE(CheckDirectory(directory.file(R"(\one/share)")));
}

TEST(MakeDirectory, RefusesAPathOfAHundredThousandPartsInOnePass) {
    const temp_directory directory;
    write_file(directory.file("file"), ""); // nothing can be made below it
    std::string path = directory.file("file");
    for (int part = 0; part < 100000; ++part) {
        path += "/x";
    }
    EXPECT_FALSE(MakeDirectory(path, true));
}

TEST(EnumDirFile, FindsRegularFilesAndFollowsLinksToThem) {
    const temp_directory directory;
    fill_with_all_kinds(directory);
    EXPECT_THAT(files_of(directory.path()), UnorderedElementsAre("file", "link to file"));
}

TEST(EnumDirGetDir, FindsDirectoriesDotsIncludedAndFollowsLinksToThem) {
    const temp_directory directory;
    fill_with_all_kinds(directory);
    EXPECT_THAT(directories_of(directory.path()),
                UnorderedElementsAre(".", "..", "directory", "link to directory"));
}

TEST(EnumDirGetDir, FindsOnlyTheDotsWhereThereIsNoSubdirectory) {
    const temp_directory directory;
    write_file(directory.file("file"), "");
    EXPECT_THAT(directories_of(directory.path()), UnorderedElementsAre(".", ".."));
}

TEST(EnumDirFile, FindsNothingInAnEmptyDirectory) {
    const temp_directory directory;
    EXPECT_THAT(files_of(directory.path()), IsEmpty());
}

TEST(EnumDirFirstFile, IgnoresItsFlag) {
    const temp_directory directory;
    fill_with_all_kinds(directory);
    std::vector<std::string> first_names;
    for (const bool flag : {false, true}) {
        kivDirectory enumeration;
        enumeration.path = directory.path();
        EXPECT_TRUE(EnumDirFirstFile(&enumeration, flag));
        first_names.push_back(enumeration.name);
        EXPECT_TRUE(EnumDirClose(&enumeration));
    }
    EXPECT_EQ(first_names[0], first_names[1]);
}

TEST(EnumDir, ReturnsFalseWithANullHandleWhenTheDirectoryCannotBeOpened) {
    kivDirectory directory;
    directory.path = "/no such directory";
    EXPECT_FALSE(EnumDirFirstFile(&directory, false));
    EXPECT_EQ(directory.handle, nullptr);
    EXPECT_FALSE(EnumDirNextFile(&directory));
    EXPECT_FALSE(EnumDirGetFirstDir(&directory));
    EXPECT_EQ(directory.handle, nullptr);
    EXPECT_FALSE(EnumDirGetNextDir(&directory));
    EXPECT_FALSE(EnumDirClose(&directory));
}

TEST(EnumDir, KeepsTheLastNameWhenNothingFollows) {
    const temp_directory directory;
    write_file(directory.file("only"), "");
    kivDirectory enumeration;
    enumeration.path = directory.path();
    ASSERT_TRUE(EnumDirFirstFile(&enumeration, false));
    EXPECT_FALSE(EnumDirNextFile(&enumeration));
    EXPECT_EQ(enumeration.name, "only");
    EXPECT_FALSE(EnumDirNextFile(&enumeration));
    EXPECT_EQ(enumeration.name, "only");
    EXPECT_FALSE(EnumDirGetNextDir(&enumeration));
    EXPECT_EQ(enumeration.name, "only");
    EXPECT_TRUE(EnumDirClose(&enumeration));
}

TEST(EnumDir, PassesOverEntriesThatCannotBeExamined) {
    const temp_directory directory;
    fill_with_all_kinds(directory);
    kivDirectory enumeration;
    enumeration.path = directory.path();
    ASSERT_TRUE(EnumDirGetFirstDir(&enumeration));
    // The entries are there to be read, but their paths lead nowhere now.
    enumeration.path = directory.file("missing");
    EXPECT_FALSE(EnumDirGetNextDir(&enumeration));
    EXPECT_TRUE(EnumDirClose(&enumeration));
}

TEST(EnumDirClose, DoesNotResetTheHandle) {
    const temp_directory directory;
    kivDirectory enumeration;
    enumeration.path = directory.path();
    EnumDirFirstFile(&enumeration, false);
    DIR* const handle = enumeration.handle;
    ASSERT_NE(handle, nullptr);
    EXPECT_TRUE(EnumDirClose(&enumeration));
    EXPECT_EQ(enumeration.handle, handle);
}

TEST(EnumDirClose, ReturnsFalseOnARecordThatWasNeverOpened) {
    kivDirectory directory;
    EXPECT_FALSE(EnumDirClose(&directory));
}

TEST(EnumDirClose, LetsTheRecordBeUsedAgain) {
    const temp_directory directory;
    write_file(directory.file("only"), "");
    kivDirectory enumeration;
    enumeration.path = directory.path();
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(EnumDirFirstFile(&enumeration, false));
        EXPECT_TRUE(EnumDirClose(&enumeration));
    }
}

// Both enumerations of one directory, for a thread to make.
struct enumerations {
    std::string path;
    std::vector<std::string> files;
    std::vector<std::string> directories;
};

void* enumerate(void* data) {
    auto* const wanted = static_cast<enumerations*>(data);
    wanted->files = files_of(wanted->path);
    wanted->directories = directories_of(wanted->path);
    return nullptr;
}

TEST(EnumDir, NeedsNoDeeperStackForAHundredThousandSkippedEntries) {
    // Eight bytes of stack for each skipped entry would already be too many.
    constexpr std::size_t small_stack = 768UL * 1024;
    const temp_directory directory;
    // Names of FIFOs are quickly made, but one file cannot have so many on every file system.
    for (const char* letter : {"a", "b"}) {
        const std::string fifo = directory.file(letter);
        ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
        for (int entry = 1; entry < 50000; ++entry) {
            ASSERT_EQ(::link(fifo.c_str(), (fifo + std::to_string(entry)).c_str()), 0);
        }
    }
    write_file(directory.file("file"), "");

    enumerations found;
    found.path = directory.path();
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, small_stack), 0);
    pthread_t thread{};
    ASSERT_EQ(pthread_create(&thread, &attributes, enumerate, &found), 0);
    pthread_attr_destroy(&attributes);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);

    EXPECT_THAT(found.files, ElementsAre("file"));
    EXPECT_THAT(found.directories, UnorderedElementsAre(".", ".."));
}

// Sets HOME, or unsets it, until the end of the scope.
class home_variable {
public:
    explicit home_variable(const char* value) {
        // One thread only, here as in every test of the environment.
        if (const char* previous =
                std::getenv("HOME")) { // NOLINT(concurrency-mt-unsafe): see above
            previous_ = previous;
        }
        set(value);
    }
    ~home_variable() { set(previous_ ? previous_->c_str() : nullptr); }
    home_variable(const home_variable&) = delete;
    home_variable& operator=(const home_variable&) = delete;

private:
    static void set(const char* value) {
        if (value == nullptr) {
            ::unsetenv("HOME"); // NOLINT(concurrency-mt-unsafe): see above
        } else {
            ::setenv("HOME", value, 1); // NOLINT(concurrency-mt-unsafe): see above
        }
    }

    std::optional<std::string> previous_;
};

TEST(GetHomeFolder, GivesTheValueOfHome) {
    const home_variable home("/some/where");
    EXPECT_EQ(GetHomeFolder(), "/some/where");
    EXPECT_EQ(GetAppSettingsFolder(), "/some/where");
}

TEST(GetHomeFolder, IsEmptyWhenHomeIsNotSet) {
    const home_variable home(nullptr);
    EXPECT_EQ(GetHomeFolder(), "");
    EXPECT_EQ(GetAppSettingsFolder(), "");
}

TEST(GetTemporaryFolder, IsAlwaysTmp) {
    EXPECT_EQ(GetTemporaryFolder(), "/tmp");
}

TEST(LogicalDrives, DoNotExistHere) {
    EXPECT_EQ(GetNumOfLogicalDrives(), 0);
    for (const int index : {0, 1, 25, 1000000, -1}) {
        SCOPED_TRACE(index);
        EXPECT_EQ(DriveIndexToMountPoint(index), "");
    }
    for (const char* drive : {"", "/", "C:", "/tmp"}) {
        SCOPED_TRACE(drive);
        EXPECT_EQ(GetSizeOfLogicalDrive(drive), 0U);
        EXPECT_EQ(GetFreeSpaceOfLogicalDrive(drive), 0U);
    }
}

} // namespace
