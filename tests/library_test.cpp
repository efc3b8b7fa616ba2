#include "KivFramework/KivFileSystem.h"
#include "KivFramework/KivLibrary.h"
#include "KivFramework/KivLogger.h"
#include "KivFramework/KivVersion.h"

#include "tests/support/transfers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace KivFramework;

std::filesystem::path executable() {
    return std::filesystem::read_symlink("/proc/self/exe");
}

// Starts the library, and stops it at the end of the scope.
class started_library {
public:
    started_library() { InitializeLibrary(nullptr); }
    ~started_library() { ShutdownLibrary(); }
    started_library(const started_library&) = delete;
    started_library& operator=(const started_library&) = delete;
};

TEST(GetModuleBasePath, IsEmptyBeforeTheStart) {
    EXPECT_EQ(GetModuleBasePath(), "");
}

TEST(GetModuleBasePath, IsTheDirectoryOfTheExecutableAfterTheStart) {
    const started_library library;
    EXPECT_EQ(GetModuleBasePath(), executable().parent_path());
    EXPECT_NE(GetModuleBasePath().back(), '/');
    EXPECT_TRUE(KivFileSystem::CheckDirectory(GetModuleBasePath()));
}

TEST(GetBundlePath, IsTheDirectoryOfTheExecutableBeforeAnyStart) {
    EXPECT_EQ(GetBundlePath(), executable().parent_path());
    EXPECT_EQ(kiv_internal_get_basepath(), GetBundlePath());
}

TEST(InitializeLibrary, IgnoresItsArgument) {
    std::vector<std::string> base_paths;
    for (const char* argument : {static_cast<const char*>(nullptr), "", "/some/where", "text"}) {
        InitializeLibrary(argument);
        base_paths.push_back(GetModuleBasePath());
        GetProgressiveSeed();
        ShutdownLibrary();
    }
    EXPECT_EQ(base_paths, std::vector<std::string>(4, executable().parent_path()));
}

TEST(InitializeLibrary, LosesNothingWhenCalledTwice) {
    InitializeLibrary(nullptr);
    InitializeLibrary(nullptr);
    const int seed = GetProgressiveSeed();
    EXPECT_EQ(GetProgressiveSeed(), seed + 1);
    ShutdownLibrary();
}

TEST(ShutdownLibrary, IsHarmlessTwiceAndWithoutAStart) {
    ShutdownLibrary();
    InitializeLibrary(nullptr);
    ShutdownLibrary();
    ShutdownLibrary();
}

TEST(ShutdownLibrary, LeavesTheBasePathAndTheDefaultLogger) {
    InitializeLibrary(nullptr);
    kivLogger logger;
    SetDefaultLogger(&logger);
    ShutdownLibrary();
    EXPECT_EQ(GetModuleBasePath(), executable().parent_path());
    EXPECT_EQ(GetDefaultLogger(), &logger);
    RemoveDefaultLogger();
}

TEST(ShutdownLibrary, LetsTheLibraryStartAgain) {
    for (int round = 0; round < 2; ++round) {
        const started_library library;
        const int seed = GetProgressiveSeed();
        EXPECT_EQ(GetProgressiveSeed(), seed + 1);
    }
}

TEST(DefaultLogger, IsNullUntilSet) {
    EXPECT_EQ(GetDefaultLogger(), nullptr);
}

TEST(DefaultLogger, IsTheOneSetLast) {
    kivLogger one;
    kivLogger two;
    SetDefaultLogger(&one);
    EXPECT_EQ(GetDefaultLogger(), &one);
    SetDefaultLogger(&two);
    EXPECT_EQ(GetDefaultLogger(), &two);
    SetDefaultLogger(nullptr);
    EXPECT_EQ(GetDefaultLogger(), nullptr);
}

TEST(DefaultLogger, IsNullAfterItsRemoval) {
    kivLogger logger;
    SetDefaultLogger(&logger);
    RemoveDefaultLogger();
    EXPECT_EQ(GetDefaultLogger(), nullptr);
    RemoveDefaultLogger();
    EXPECT_EQ(GetDefaultLogger(), nullptr);
}

TEST(GetProgressiveSeed, GivesConsecutiveValuesEachOnceToManyThreads) {
    constexpr unsigned int threads = 8;
    constexpr unsigned int calls = 20000;
    const started_library library;
    // Differences are unsigned, since the counter may wrap on its way.
    const auto start = static_cast<unsigned int>(GetProgressiveSeed()) + 1;

    std::latch all_ready(threads);
    std::array<std::vector<unsigned int>, threads> drawn;
    std::vector<std::thread> running;
    running.reserve(threads);
    for (std::vector<unsigned int>& values : drawn) {
        running.emplace_back([&values, &all_ready, start] {
            values.reserve(calls);
            all_ready.arrive_and_wait();
            for (unsigned int call = 0; call < calls; ++call) {
                values.push_back(static_cast<unsigned int>(GetProgressiveSeed()) - start);
            }
        });
    }
    std::vector<unsigned int> all;
    for (unsigned int thread = 0; thread < threads; ++thread) {
        running[thread].join();
        EXPECT_TRUE(std::is_sorted(drawn[thread].begin(), drawn[thread].end()));
        all.insert(all.end(), drawn[thread].begin(), drawn[thread].end());
    }

    std::sort(all.begin(), all.end());
    ASSERT_EQ(all.size(), threads * calls);
    for (unsigned int value = 0; value < all.size(); ++value) {
        ASSERT_EQ(all[value], value);
    }
}

TEST(GetLibraryVersion, IsTheVersionOfTheHeadersItWasBuiltWith) {
    EXPECT_STREQ(GetLibraryVersion(), KIV_VERSION);
    EXPECT_EQ(std::string(KIV_VERSION), std::to_string(KIV_VERSION_MAJOR) + "." +
                                            std::to_string(KIV_VERSION_MINOR) + "." +
                                            std::to_string(KIV_VERSION_PATCH));
}

TEST(GetRunningPlatformOS, IsAlwaysFour) {
    EXPECT_EQ(GetRunningPlatformOS(), 4);
}

// The bytes 1 to 8 after `offset` bytes of padding, with more padding behind.
std::array<unsigned char, 16> counted_bytes(std::size_t offset) {
    std::array<unsigned char, 16> bytes{};
    for (unsigned char value = 1; value <= 8; ++value) {
        bytes[offset + value - 1] = value;
    }
    return bytes;
}

std::array<unsigned char, 16> at(std::size_t offset, std::array<unsigned char, 8> values) {
    std::array<unsigned char, 16> bytes{};
    std::copy(values.begin(), values.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    return bytes;
}

TEST(SwapBytes, ReversesExactlyItsBytesAtAnyAlignment) {
    for (std::size_t offset = 0; offset < 8; ++offset) {
        SCOPED_TRACE(offset);
        std::array<unsigned char, 16> bytes = counted_bytes(offset);
        Swap2Bytes(bytes.data() + offset);
        EXPECT_EQ(bytes, at(offset, {2, 1, 3, 4, 5, 6, 7, 8}));

        bytes = counted_bytes(offset);
        Swap4Bytes(bytes.data() + offset);
        EXPECT_EQ(bytes, at(offset, {4, 3, 2, 1, 5, 6, 7, 8}));

        bytes = counted_bytes(offset);
        Swap8Bytes(bytes.data() + offset);
        EXPECT_EQ(bytes, at(offset, {8, 7, 6, 5, 4, 3, 2, 1}));
    }
}

TEST(SwapBytes, RestoresTheValueWhenDoneTwice) {
    unsigned long long value = 0x0123456789ABCDEFULL;
    Swap8Bytes(&value);
    EXPECT_EQ(value, 0xEFCDAB8967452301ULL);
    Swap8Bytes(&value);
    EXPECT_EQ(value, 0x0123456789ABCDEFULL);
}

TEST(GetProcessorsCount, CountsTheProcessorsOnline) {
    EXPECT_EQ(GetProcessorsCount(), ::sysconf(_SC_NPROCESSORS_ONLN));
    EXPECT_GE(GetProcessorsCount(), 1);
}

TEST(GetHostName, GivesTheSystemsName) {
    std::array<char, 256> expected{};
    ASSERT_EQ(::gethostname(expected.data(), expected.size() - 1), 0);
    std::string name = "replaced";
    EXPECT_TRUE(GetHostName(name));
    EXPECT_EQ(name, expected.data());
}

TEST(GenerateUniqueGUID, IsUpperCaseHexadecimalOfTwentyDigitsOrMore) {
    const std::string identifier = GenerateUniqueGUID();
    EXPECT_GE(identifier.size(), 20U);
    EXPECT_EQ(identifier.find_first_not_of("0123456789ABCDEF"), std::string::npos);
}

// A lock name that no other process uses.
std::string own_lock_name() {
    return "kiv-library-test-" + std::to_string(::getpid());
}

// Whether somebody holds the lock of the file at `path`.
bool is_locked(const std::string& path) {
    const int descriptor = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_NE(descriptor, -1);
    const bool locked = ::flock(descriptor, LOCK_EX | LOCK_NB) == -1 && errno == EWOULDBLOCK;
    ::close(descriptor);
    return locked;
}

struct stat facts_of(int descriptor) {
    struct stat facts {};
    EXPECT_EQ(::fstat(descriptor, &facts), 0);
    return facts;
}

struct stat facts_of(const std::string& path) {
    struct stat facts {};
    EXPECT_EQ(::stat(path.c_str(), &facts), 0);
    return facts;
}

TEST(CreateUniqueLock, LocksAFileBelowTmpUntilItsDeletion) {
    const std::string name = own_lock_name();
    const int lock = CreateUniqueLock(name.c_str());
    ASSERT_NE(lock, -1);
    EXPECT_EQ(facts_of("/tmp/" + name).st_ino, facts_of(lock).st_ino);
    EXPECT_TRUE(is_locked("/tmp/" + name));

    EXPECT_TRUE(DeleteUniqueLock(lock, name.c_str()));
    EXPECT_EQ(::fcntl(lock, F_GETFD), -1);
    EXPECT_FALSE(std::filesystem::exists("/tmp/" + name));
}

TEST(CreateUniqueLock, ReplacesAFileThatACrashLeft) {
    const std::string name = own_lock_name();
    const std::string path = "/tmp/" + name;
    std::ofstream(path) << "left behind";
    // Held open, so that its inode cannot be used again.
    const int stale = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_NE(stale, -1);

    const int lock = CreateUniqueLock(name.c_str());
    ASSERT_NE(lock, -1);
    EXPECT_NE(facts_of(lock).st_ino, facts_of(stale).st_ino);
    EXPECT_EQ(facts_of(lock).st_size, 0);
    ::close(stale);
    DeleteUniqueLock(lock, name.c_str());
}

TEST(CreateUniqueLock, GivesASecondProcessItsOwnLockWhileTheFirstIsHeld) {
    const std::string name = own_lock_name();
    int to_child[2];
    int from_child[2];
    ASSERT_EQ(::pipe(to_child), 0);
    ASSERT_EQ(::pipe(from_child), 0);

    const pid_t child = ::fork();
    if (child == 0) {
        ::close(to_child[1]);
        const int lock = CreateUniqueLock(name.c_str());
        struct stat facts {};
        ::fstat(lock, &facts);
        char go_on = 0;
        const bool told =
            kiv_test::write_fully(from_child[1], &facts.st_ino, sizeof(facts.st_ino)) &&
            kiv_test::read_fully(to_child[0], &go_on, 1) == 1;
        // The lock is still held, on a file that has no name any more.
        ::fstat(lock, &facts);
        ::_exit(told && lock != -1 && facts.st_nlink == 0 ? 0 : 1);
    }
    ::close(to_child[0]);
    ::close(from_child[1]);
    ino_t childs_file = 0;
    ASSERT_EQ(kiv_test::read_fully(from_child[0], &childs_file, sizeof(childs_file)),
              sizeof(childs_file));
    EXPECT_TRUE(is_locked("/tmp/" + name)); // by the child

    const int lock = CreateUniqueLock(name.c_str());
    ASSERT_NE(lock, -1);
    EXPECT_NE(facts_of(lock).st_ino, childs_file);
    EXPECT_TRUE(is_locked("/tmp/" + name)); // by this process

    EXPECT_EQ(::write(to_child[1], "", 1), 1);
    int status = 0;
    EXPECT_EQ(kiv_test::wait_for_child(child, &status), child);
    EXPECT_EQ(status, 0);
    ::close(to_child[1]);
    ::close(from_child[0]);
    DeleteUniqueLock(lock, name.c_str());
}

TEST(CreateUniqueLock, ReachesIntoSubdirectories) {
    const std::string directory = own_lock_name();
    ASSERT_EQ(::mkdir(("/tmp/" + directory).c_str(), 0700), 0);
    const std::string name = directory + "/lock";
    const int lock = CreateUniqueLock(name.c_str());
    EXPECT_NE(lock, -1);
    EXPECT_TRUE(std::filesystem::exists("/tmp/" + name));
    DeleteUniqueLock(lock, name.c_str());
    EXPECT_EQ(::rmdir(("/tmp/" + directory).c_str()), 0);
}

TEST(CreateUniqueLock, ReturnsMinusOneWhenTheFileCannotBeOpened) {
    EXPECT_EQ(CreateUniqueLock((own_lock_name() + "/missing/lock").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(CreateUniqueLock(""), -1); // "/tmp/" itself
    EXPECT_EQ(CreateUniqueLock(nullptr), -1);
}

TEST(DeleteUniqueLock, ReturnsTrueWhateverTheSystemSays) {
    EXPECT_TRUE(DeleteUniqueLock(-1, own_lock_name().c_str()));
    EXPECT_TRUE(DeleteUniqueLock(-1, (own_lock_name() + "/missing/lock").c_str()));
    EXPECT_TRUE(DeleteUniqueLock(-1, nullptr));
}

TEST(DeleteUniqueLock, RemovesTheFileOfThatNameWhoeverMadeIt) {
    const std::string name = own_lock_name();
    std::ofstream("/tmp/" + name) << "another's";
    EXPECT_TRUE(DeleteUniqueLock(-1, name.c_str()));
    EXPECT_FALSE(std::filesystem::exists("/tmp/" + name));
}

} // namespace
