// A performance session while the system fails.

#include "KivFramework/KivPerformanceMonitor.h"

#include "tests/torture/torture.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include <dlfcn.h>
#include <pthread.h>

namespace {

std::atomic<int> samples_due = 0;

} // namespace

// The sampler's second between two samples, which passes at once while samples are due.
extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                      clockid_t clock, const timespec* deadline) {
    static const auto system = reinterpret_cast<decltype(&pthread_cond_clockwait)>(
        ::dlsym(RTLD_NEXT, "pthread_cond_clockwait"));
    if (samples_due > 0) {
        --samples_due;
        return ETIMEDOUT;
    }
    return system(condition, mutex, clock, deadline);
}

namespace {

using namespace KivFramework;

class performance_session : public kiv_test::scenario {
public:
    const char* name() const override { return "performance_session"; }

    std::vector<kiv_test::way_to_fail> ways() const override {
        return {kiv_test::no_memory, kiv_test::no_open, kiv_test::no_read, kiv_test::no_thread};
    }

    void prepare() override {
        samples_due = 3;
        load_ = -1;
        ram_ = 0;
        texts_ = 0;
        ticks_ = {-1, -1, -1};
        filled_ = _perf_mon_data();
    }

    void attempt() override {
        struct stopper {
            ~stopper() { KivPerformanceMonitor::StopPerformanceMonitor(); }
        };
        const stopper stop;
        KivPerformanceMonitor::StartPerformanceMonitor();
        wait_for_samples();
        load_ = KivPerformanceMonitor::GetCpuUsage(0);
        ram_ = KivPerformanceMonitor::GetRamAmount();
        KivPerformanceMonitor::get_cpu_states(ticks_.data(), 0);
        KivPerformanceMonitor::FillPerformanceData(&filled_);
        texts_ += KivPerformanceMonitor::GetFormattedProcUsage().empty() ? 0 : 1;
        texts_ += KivPerformanceMonitor::GetFormattedRamUsage().empty() ? 0 : 1;
    }

    std::string fault_in(const kiv_test::mishap& happened) override {
        if (happened.threw) {
            return "";
        }
        if (load_ < 0 || load_ > 100) {
            return "a load beyond all bounds";
        }
        return texts_ == 2 ? "" : "a text is missing";
    }

    std::string flaw() override {
        // Once stopped, the monitor stays with its last figures, be they those of a failure.
        const bool read = load_ >= 0 && load_ <= 100 && ram_ >= 100 && texts_ == 2 &&
                          ticks_[2] >= 0 && filled_.ram_amount > 100;
        return read ? "" : "a figure is missing";
    }

private:
    // No more come without a sampler, or after its end.
    static void wait_for_samples() {
        for (int i = 0; i < 100 && samples_due > 0 && !kiv_test::is_single_threaded(); ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    double load_ = -1;
    unsigned long long ram_ = 0;
    int texts_ = 0;
    std::array<long, 3> ticks_ = {};
    _perf_mon_data filled_;
};

TEST(Torture, PerformanceSessionSurvivesEveryFailure) {
    performance_session tortured;
    kiv_test::torture(tortured);
}

} // namespace
