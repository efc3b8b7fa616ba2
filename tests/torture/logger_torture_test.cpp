// A logger that writes, rotates and hands its lines to a thread while the system fails.

#include "KivFramework/KivLogger.h"

#include "tests/support/fake_time.h"
#include "tests/support/temp_directory.h"
#include "tests/torture/torture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <new>
#include <optional>
#include <string>
#include <vector>

namespace {

using namespace KivFramework;
using namespace KivFramework::KivLogger;

constexpr int to_file = 4;
constexpr int line_count = 12;
constexpr std::time_t start_time = 1173258301;
constexpr std::time_t one_hour = 3600;

// The numbers of the lines in a file, in their order; -1 for a line that is none of ours.
std::vector<int> numbers_in(const std::filesystem::path& path) {
    std::vector<int> numbers;
    std::ifstream stream(path);
    for (std::string line; std::getline(stream, line);) {
        int number = -1;
        const std::size_t message = line.find(" - [torture] line ");
        if (message == 19) {
            std::sscanf(line.c_str() + message, " - [torture] line %d.", &number);
        }
        numbers.push_back(line.ends_with('.') ? number : -1);
    }
    return numbers;
}

int rotations = 0;
void count_rotation(const char* /*rotated_path*/) {
    ++rotations;
}

class rotating_log : public kiv_test::scenario {
public:
    explicit rotating_log(bool detached) : detached_(detached) {}

    const char* name() const override { return detached_ ? "log_detached" : "log_plain"; }

    std::vector<kiv_test::way_to_fail> ways() const override {
        using namespace kiv_test;
        std::vector<way_to_fail> all = {no_memory,  no_open,  no_fopen,
                                        no_opendir, no_write, no_rename};
        if (detached_) {
            all.push_back(no_thread);
        } else {
            all.push_back(no_read);
        }
        return all;
    }

    void prepare() override {
        std::filesystem::remove_all(log_directory_);
        if (!detached_) {
            // A file from before, whose date is read.
            std::filesystem::create_directory(log_directory_);
            kiv_test::write_file(log_directory_ + "/log", "03/07/2007 08:05:00 - [torture] line "
                                                          "0.\n");
        }
        clock_.set(start_time);
        logger_.emplace();
        rotations = 0;
        created_ = had_file_ = false;
        refused_ = 0;
    }

    void attempt() override {
        struct destroyer {
            kivLogger* logger;
            ~destroyer() { DestroyLogger(logger); }
        };
        SetLoggerFile(&*logger_, "log");
        SetLoggerBasePath(&*logger_, log_directory_);
        const destroyer guard{&*logger_};
        CreateLogger(&*logger_, 1, to_file);
        created_ = true;
        SetLoggerRotation(&*logger_, 1);
        SetLoggerRotationCallback(&*logger_, reinterpret_cast<void*>(&count_rotation));
        SetLoggerDetachedStatus(&*logger_, detached_);
        for (int number = 1; number <= line_count; ++number) {
            if (number % 5 == 0) {
                FlushDetachedThread(&*logger_);
                clock_.set(start_time + number * one_hour);
            }
            if (number % 4 == 0) {
                FlushDetachedThread(&*logger_);
                SetLoggerDetachedStatus(&*logger_, false);
                SetLoggerDetachedStatus(&*logger_, detached_);
            }
            try {
                AddLogEntry(&*logger_, 1, "torture", "line %d%s", number,
                            " that is too long for a small string.");
            } catch (const std::bad_alloc&) {
                ++refused_;
            }
        }
        FlushDetachedThread(&*logger_);
        had_file_ = logger_->file != nullptr;
    }

    void finish() override { logger_.reset(); }

    std::string fault_in(const kiv_test::mishap& happened) override {
        if (!created_) {
            return happened.threw ? "" : "the logger could not be created";
        }
        if (refused_ != 0) {
            return "a log entry threw";
        }
        std::string problem;
        std::vector<int> all;
        for (const auto& file : std::filesystem::directory_iterator(log_directory_)) {
            const std::vector<int> numbers = numbers_in(file.path());
            if (!std::is_sorted(numbers.begin(), numbers.end())) {
                problem += "; lines out of order";
            }
            all.insert(all.end(), numbers.begin(), numbers.end());
        }
        std::sort(all.begin(), all.end());
        if (std::adjacent_find(all.begin(), all.end()) != all.end()) {
            problem += "; a line twice";
        }
        if (!all.empty() && all.front() < 0) {
            problem += "; a torn line";
        }
        // A file that cannot be opened or written to loses its lines, and nothing else does.
        const bool may_lose = !had_file_ || (happened.way.call == kiv_test::fallible::write &&
                                             (happened.for_ever || detached_));
        if (!may_lose && all != expected()) {
            problem += "; lines are missing";
        }
        return problem;
    }

    std::string flaw() override {
        const kiv_test::mishap nothing{kiv_test::no_memory, 0, false, false};
        // The first line of the file from before has no day of the week, so that is one more.
        const int expected_rotations = detached_ ? 2 : 3;
        return had_file_ && rotations == expected_rotations ? fault_in(nothing)
                                                            : "no rotation, or no file";
    }

private:
    std::vector<int> expected() const {
        std::vector<int> numbers;
        for (int number = detached_ ? 1 : 0; number <= line_count; ++number) {
            numbers.push_back(number);
        }
        return numbers;
    }

    bool detached_;
    kiv_test::time_zone zone_{"UTC"};
    kiv_test::fake_time clock_{start_time};
    kiv_test::temp_directory directory_;
    std::string log_directory_ = directory_.file("a-directory-name-too-long-for-a-small-string");
    std::optional<kivLogger> logger_;
    bool created_ = false;
    bool had_file_ = false;
    int refused_ = 0;
};

TEST(Torture, LogLosesNothingButToAFailingFileWhileItRotates) {
    rotating_log tortured(/*detached=*/false);
    kiv_test::torture(tortured);
}

TEST(Torture, DetachedLogLosesNothingButToAFailingFileWhileItRotates) {
    rotating_log tortured(/*detached=*/true);
    kiv_test::torture(tortured);
}

} // namespace
