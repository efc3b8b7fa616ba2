// The library from its start to its stop while the system fails.

#include "KivFramework/KivFramework.h"

#include "tests/support/temp_directory.h"
#include "tests/torture/torture.h"

#include <gtest/gtest.h>

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
        return {no_memory, no_open, no_fopen, no_opendir, no_thread, no_interfaces};
    }

    void prepare() override {
        logger_.emplace();
        steps_ = 0;
        thread_result_ = 0;
        lock_ = 0;
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

    void finish() override { logger_.reset(); }

    std::string fault_in(const kiv_test::mishap& happened) override {
        if (happened.way.call != kiv_test::fallible::memory && steps_ != 6) {
            return "only memory may stop it";
        }
        return steps_ != 6 && !happened.threw ? "it stopped without a reason" : "";
    }

    std::string flaw() override {
        return steps_ == 6 && thread_result_ == 7 && lock_ != -1 ? "" : "a step failed";
    }

private:
    void use_host_utilities() {
        seed_ = GetProgressiveSeed();
        std::string host;
        GetHostName(host);
        GetModuleBasePath();
        GetHostMacAddresses(false);
        GenerateUniqueGUID();
        lock_ = CreateUniqueLock(lock_name_.c_str());
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
        if (thread != nullptr) {
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
    int thread_result_ = 0;
    int lock_ = 0;
};

TEST(Torture, LibrarySurvivesEveryFailureFromStartToStop) {
    start_to_stop tortured;
    kiv_test::torture(tortured);
}

} // namespace
