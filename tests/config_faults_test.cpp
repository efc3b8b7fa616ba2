// Configuration files on a disk that fails: the definitions of `read` and `write` below stand
// before the C library's and answer as a test wishes.

#include "KivFramework/KivConfigFile.h"

#include "tests/support/temp_directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <fstream>
#include <functional>
#include <string>
#include <utility>

#include <dlfcn.h>
#include <unistd.h>

namespace {

// One answer: an error, or at most so many bytes of what was asked for.
struct answer {
    int error;
    std::size_t most;
};

std::deque<answer> read_answers;
std::deque<answer> write_answers;
int writes_after_the_script = 0;
std::function<void()> before_the_next_read;

// Calls `made`, which moves as many of so many bytes as it likes, from an offset on.
template <typename call>
ssize_t answered(std::deque<answer>& script, std::size_t count, call made) {
    if (script.empty()) {
        return made(0, count);
    }
    const answer next = script.front();
    script.pop_front();
    if (next.error != 0) {
        errno = next.error;
        return -1;
    }
    // All that the answer grants, in however many parts the system moves it.
    const std::size_t granted = std::min(next.most, count);
    std::size_t moved = 0;
    for (ssize_t part = 1; moved < granted && part > 0;) {
        part = made(moved, granted - moved);
        moved += part > 0 ? static_cast<std::size_t>(part) : 0;
    }
    return static_cast<ssize_t>(moved);
}

} // namespace

extern "C" ssize_t read(int descriptor, void* buffer, size_t count) {
    static const auto system_read = reinterpret_cast<decltype(&read)>(::dlsym(RTLD_NEXT, "read"));
    if (const auto deed = std::exchange(before_the_next_read, nullptr)) {
        deed();
    }
    return answered(read_answers, count, [&](std::size_t offset, std::size_t size) {
        return system_read(descriptor, static_cast<char*>(buffer) + offset, size);
    });
}

extern "C" ssize_t write(int descriptor, const void* buffer, size_t count) {
    static const auto system_write =
        reinterpret_cast<decltype(&write)>(::dlsym(RTLD_NEXT, "write"));
    writes_after_the_script += write_answers.empty() ? 1 : 0;
    return answered(write_answers, count, [&](std::size_t offset, std::size_t size) {
        return system_write(descriptor, static_cast<const char*>(buffer) + offset, size);
    });
}

namespace {

using namespace KivFramework;

class config_faults : public testing::Test {
protected:
    ~config_faults() override {
        read_answers.clear();
        write_answers.clear();
    }

    kiv_test::temp_directory directory_;
    std::string path_ = directory_.file("agent.conf");
    kivConfigManager manager_;
};

class LoadConfigFileFault : public config_faults {};
class SaveConfigFileFault : public config_faults {};

TEST_F(LoadConfigFileFault, ReadErrorCountsAsTheEndOfTheFile) {
    kiv_test::write_file(path_, "a = 1\nb = 2\nc = 3\n");
    read_answers = {{0, 8}, {EIO, 0}};
    EXPECT_TRUE(LoadConfigFile(&manager_, path_.c_str()));
    EXPECT_EQ(manager_.values, (std::map<std::string, std::string>{{"_default_#a", "1"}}));
}

TEST_F(LoadConfigFileFault, InterruptedAndShortReadsGoOn) {
    kiv_test::write_file(path_, "a = 1\nb = 2\nc = 3\n");
    read_answers = {{EINTR, 0}, {0, 1}, {0, 1}, {EINTR, 0}, {0, 5}};
    EXPECT_TRUE(LoadConfigFile(&manager_, path_.c_str()));
    EXPECT_EQ(manager_.values,
              (std::map<std::string, std::string>{
                  {"_default_#a", "1"}, {"_default_#b", "2"}, {"_default_#c", "3"}}));
}

TEST_F(SaveConfigFileFault, ReadErrorLeavesThePreviousTextUpToThere) {
    kiv_test::write_file(path_, "one\ntwo\nthree\n");
    read_answers = {{EINTR, 0}, {0, 4}, {EIO, 0}};
    EXPECT_TRUE(SaveConfigFile(&manager_, path_.c_str()));
    EXPECT_NE(kiv_test::read_file(path_).find("##\n\none\n\n\n## End"), std::string::npos);
}

TEST_F(SaveConfigFileFault, KeepsWhatIsAddedToTheFileWhileItIsRead) {
    kiv_test::write_file(path_, "one\n");
    before_the_next_read = [this] { std::ofstream(path_, std::ios::app) << "two\nthree\n"; };
    EXPECT_TRUE(SaveConfigFile(&manager_, path_.c_str()));
    EXPECT_NE(kiv_test::read_file(path_).find("##\n\none\ntwo\nthree\n\n\n## End"),
              std::string::npos);
}

TEST_F(SaveConfigFileFault, ShortAndInterruptedWritesGoOnFromTheFirstUnwrittenByte) {
    SetConfigValue(&manager_, "a", "b", "c");
    ASSERT_TRUE(SaveConfigFile(&manager_, path_.c_str()));
    const std::string whole = kiv_test::read_file(path_);
    write_answers = {{0, 1}, {EINTR, 0}, {0, 7}, {EINTR, 0}, {EINTR, 0}, {0, 30}};
    EXPECT_TRUE(SaveConfigFile(&manager_, path_.c_str()));
    EXPECT_EQ(kiv_test::read_file(path_).substr(whole.find("##\n\n")),
              whole.substr(whole.find("##\n\n")));
}

TEST_F(SaveConfigFileFault, WritingStopsWhereNoProgressIsMadeAndTheResultIsTrue) {
    for (const answer& failure :
         {answer{ENOSPC, 0}, answer{EIO, 0}, answer{EAGAIN, 0}, answer{0, 0}}) {
        SCOPED_TRACE(failure.error);
        // More than is written at once, so that a later part must not follow the gap.
        SetConfigValue(&manager_, "a", "b", std::string(100000, 'x').c_str());
        kiv_test::write_file(path_, "");
        write_answers = {{0, 10}, failure};
        writes_after_the_script = 0;
        EXPECT_TRUE(SaveConfigFile(&manager_, path_.c_str()));
        EXPECT_EQ(writes_after_the_script, 0);
        EXPECT_EQ(kiv_test::read_file(path_), "## This fi");
    }
}

} // namespace
