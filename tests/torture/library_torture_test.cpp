// The library from its start to its stop while the system fails.

#include "KivFramework/KivFramework.h"

#include "tests/support/temp_directory.h"
#include "tests/torture/torture.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include <unistd.h>

namespace {

using namespace KivFramework;
using namespace KivFramework::KivProcesses;
using kiv_test::at_end;

void* end_with_seven(void* block) {
    EndThread(7, block);
    return nullptr;
}

class start_to_stop : public kiv_test::scenario {
public:
    start_to_stop() { kiv_test::use_small_environment(); }

    const char* name() const override { return "library_start_to_stop"; }

    std::vector<kiv_test::way_to_fail> ways() const override {
        using namespace kiv_test;
        return {no_memory, no_open, no_read, no_fopen, no_opendir, no_thread, no_interfaces};
    }

    void prepare() override {
        kiv_test::write_file(directory_.file("default.log"), "01/02/2003 04:05:06 - [m] old\n");
        ::tzset(); // the C library keeps the zone, which only a failure asks for
        logger_.emplace();
        steps_ = 0;
        has_log_file_ = thread_started_ = false;
        thread_result_ = 0;
        lock_ = 0;
        lock_error_ = 0;
    }

    void attempt() override {
        const at_end stop([] { ShutdownLibrary(); });
        InitializeLibrary(nullptr);
        InitializeLibrary("again, without a stop");
        ++steps_;
        KivLogger::SetLoggerBasePath(&*logger_, directory_.path());
        const at_end no_logger([this] {
            RemoveDefaultLogger();
            KivLogger::DestroyLogger(&*logger_);
        });
        KivLogger::CreateLogger(&*logger_, 1, /*flags=*/4);
        has_log_file_ = logger_->file != nullptr;
        period_start_ = logger_->period_start;
        SetDefaultLogger(&*logger_);
        ++steps_;
        use_host_utilities();
        ++steps_;
        use_locks();
        ++steps_;
        use_thread();
        ++steps_;
        use_environment();
        ++steps_;
    }

    void finish() override {
        logger_.reset();
        std::string().swap(addresses_);
    }

    std::string fault_in(const kiv_test::mishap& happened) override {
        if (happened.way.call != kiv_test::fallible::memory && steps_ != 6) {
            return "only memory may stop it";
        }
        if (happened.way.call != kiv_test::fallible::memory) {
            return is_as_documented(happened) ? "" : "a failed call gave another result";
        }
        return steps_ != 6 && !happened.threw ? "it stopped without a reason" : "";
    }

    std::string flaw() override {
        return steps_ == 6 && has_documented_results({}) ? "" : "a step failed";
    }

private:
    // What cannot be had.
    struct losses {
        bool date_of_log = false;
        bool log_file = false;
        bool lock = false;
        bool thread = false;
        bool addresses = false;
    };

    bool is_as_documented(const kiv_test::mishap& happened) const {
        losses lost;
        switch (happened.way.call) {
        case kiv_test::fallible::open: // of the log for its date, then of the lock's file
            lost.date_of_log = happened.number == 1;
            lost.lock = happened.number == 2 || happened.for_ever;
            break;
        case kiv_test::fallible::read:
            lost.date_of_log = true;
            break;
        case kiv_test::fallible::fopen:
            lost.log_file = true;
            break;
        case kiv_test::fallible::thread:
            lost.thread = true;
            break;
        case kiv_test::fallible::interfaces:
            lost.addresses = true;
            break;
        default: // a directory that cannot be looked into is there all the same
            break;
        }
        return has_documented_results(lost);
    }

    bool has_documented_results(const losses& lost) const {
        constexpr int year_of_log = 2003 - 1900;
        const bool dated = lost.date_of_log ? period_start_.tm_year > year_of_log // now
                                            : period_start_.tm_year == year_of_log;
        const bool locked = lost.lock ? lock_ == -1 && lock_error_ == EMFILE : lock_ >= 0;
        const bool threaded =
            lost.thread ? !thread_started_ : thread_started_ && thread_result_ == 7;
        return dated && has_log_file_ == !lost.log_file && locked && threaded &&
               (!lost.addresses || addresses_.empty());
    }

    void use_host_utilities() {
        seed_ = GetProgressiveSeed();
        std::string host;
        GetHostName(host);
        GetModuleBasePath();
        addresses_ = GetHostMacAddresses(false);
        GenerateUniqueGUID();
        lock_ = CreateUniqueLock(lock_name_.c_str());
        lock_error_ = errno;
        if (lock_ != -1) {
            DeleteUniqueLock(lock_, lock_name_.c_str());
        }
    }

    static void use_locks() {
        _kivRWLocker* const locker = CreateRWLocker(false);
        const at_end destroyed([locker] {
            DestroyRWLocker(locker);
            delete locker; // the record is the host's
        });
        LockReadRWLocker(locker);
        UnlockRWLocker(locker);
        LockWriteRWLocker(locker);
        UnlockRWLocker(locker);
    }

    void use_thread() {
        kivThreadObj* const thread = SpawnThread(end_with_seven, nullptr);
        thread_started_ = thread != nullptr;
        if (thread_started_) {
            thread_result_ = JoinThread(thread);
        }
    }

    static void use_environment() {
        kivEnvironment* const environment = CreateEnvironment(true);
        const at_end destroyed([environment] { DestroyEnvironment(environment); });
        SetEnvironmentValue(environment, "A_NAME_TOO_LONG_FOR_A_SMALL_STRING",
                            "%PATH%:a value too long for a small string");
        const std::unique_ptr<char[]> block(GetEnvironmentAnsiString(environment));
        kiv_free_argv_array(kiv_get_environment(environment));
        UnsetEnvironmentValue(environment, "A_NAME_TOO_LONG_FOR_A_SMALL_STRING");
    }

    kiv_test::temp_directory directory_;
    const std::string lock_name_ = "kiv-torture-" + std::to_string(::getpid()) + ".lock";
    std::optional<kivLogger> logger_;
    int steps_ = 0;
    int seed_ = 0;
    bool has_log_file_ = false;
    std::tm period_start_{};
    std::string addresses_;
    bool thread_started_ = false;
    int thread_result_ = 0;
    int lock_ = 0;
    int lock_error_ = 0;
};

TEST(Torture, LibrarySurvivesEveryFailureFromStartToStop) {
    start_to_stop tortured;
    kiv_test::torture(tortured);
}

} // namespace
