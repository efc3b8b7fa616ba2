// The main function of every test program. Around each test it compares the process's descriptors,
// threads and children, so that a leak fails the very test that made it.

#include "tests/support/temp_directory.h"
#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <thread>

#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::set<std::string> entries_of(const char* path) {
    std::set<std::string> names;
    DIR* directory = ::opendir(path);
    if (directory == nullptr) {
        return names;
    }
    // readdir is safe here: the stream is this function's alone.
    while (const dirent* entry = ::readdir(directory)) { // NOLINT(concurrency-mt-unsafe): see above
        if (entry->d_name[0] != '.') {
            names.insert(entry->d_name);
        }
    }
    ::closedir(directory);
    return names;
}

// What each open descriptor refers to, by number.
std::map<std::string, std::string> open_descriptors() {
    std::map<std::string, std::string> descriptors;
    for (const std::string& number : entries_of("/proc/self/fd")) {
        char target[256];
        const ssize_t length =
            ::readlink(("/proc/self/fd/" + number).c_str(), target, sizeof(target));
        if (length > 0) { // the one that listed the directory is gone again
            descriptors[number] = std::string(target, static_cast<std::size_t>(length));
        }
    }
    return descriptors;
}

bool has_children() {
    siginfo_t info{};
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
}

class resource_check : public testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo& /*test*/) override {
        descriptors_ = open_descriptors();
        threads_ = entries_of("/proc/self/task").size();
        had_children_ = has_children();
    }

    void OnTestEnd(const testing::TestInfo& /*test*/) override {
        EXPECT_EQ(open_descriptors(), descriptors_) << "the test changed the open descriptors";
        // The kernel drops a joined thread from the list a moment after the join.
        const bool threads_gone = kiv_test::wait_until(
            [this] { return entries_of("/proc/self/task").size() <= threads_; });
        EXPECT_TRUE(threads_gone) << "the test left a thread running";
        EXPECT_TRUE(had_children_ || !has_children()) << "the test left a child behind";
    }

    std::map<std::string, std::string> descriptors_;
    std::size_t threads_ = 0;
    bool had_children_ = false;
};

// GoogleTest wants a working directory when it starts; the tests are to do without.
void enter_removed_directory() {
    const kiv_test::temp_directory directory;
    if (::chdir(directory.path().c_str()) != 0) {
        std::abort();
    }
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    // Nothing else runs yet. NOLINTNEXTLINE(concurrency-mt-unsafe)
    if (std::getenv("KIV_TEST_IN_REMOVED_DIRECTORY") != nullptr) {
        enter_removed_directory();
    }
#if defined(__SANITIZE_THREAD__)
    // The sanitizer starts a thread of its own beside the program's first one.
    std::thread([] {}).join();
#endif
    testing::UnitTest::GetInstance()->listeners().Append(new resource_check);
    return RUN_ALL_TESTS();
}
