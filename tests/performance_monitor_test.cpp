// The monitor of the real system. It lives once per process, so each of these tests needs a process
// of its own, as CTest gives it. The program counts the threads that are started in it.

#include "KivFramework/KivLibrary.h"
#include "KivFramework/KivPerformanceMonitor.h"

#include "tests/support/child_process.h"
#include "tests/support/stepped_wait.h"
#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

std::atomic<int> threads_started = 0;
std::atomic<bool> threads_forbidden = false;

} // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument) noexcept {
    if (threads_forbidden) {
        return EAGAIN;
    }
    ++threads_started;
    static const auto real =
        reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
    return real(thread, attributes, start, argument);
}

namespace {

using namespace KivFramework;
using namespace KivFramework::KivPerformanceMonitor;

TEST(PerfMonData, HasItsFieldsInOrder) {
    EXPECT_EQ(offsetof(_perf_mon_data, cpu_count), 0);
    EXPECT_EQ(offsetof(_perf_mon_data, cpu_usage), sizeof(double*));
    EXPECT_EQ(offsetof(_perf_mon_data, ram_amount), 2 * sizeof(double*));
    EXPECT_EQ(offsetof(_perf_mon_data, ram_usage), 2 * sizeof(double*) + 8);
    EXPECT_EQ(offsetof(_perf_mon_data, swap_amount), 2 * sizeof(double*) + 16);
    EXPECT_EQ(offsetof(_perf_mon_data, swap_usage), 2 * sizeof(double*) + 24);
    EXPECT_EQ(sizeof(_perf_mon_data), 2 * sizeof(double*) + 32);
}

TEST(PerfMonData, StartsAtZero) {
    const _perf_mon_data data;
    EXPECT_EQ(data.cpu_count, 0);
    EXPECT_EQ(data.cpu_usage, nullptr);
    EXPECT_EQ(data.ram_amount, 0U);
    EXPECT_EQ(data.ram_usage, 0U);
    EXPECT_EQ(data.swap_amount, 0U);
    EXPECT_EQ(data.swap_usage, 0U);
}

TEST(PerfMonData, IsOneTypeInBothNamespaces) {
    testing::StaticAssertTypeEq<KivFramework::_perf_mon_data,
                                KivFramework::KivPerformanceMonitor::_perf_mon_data>();
}

class PerformanceMonitor : public testing::Test {
protected:
    void SetUp() override {
        static bool used = false;
        if (used) {
            GTEST_SKIP() << "the monitor of this process has stopped for good";
        }
        used = true;
        threads_started = 0;
    }
    void TearDown() override {
        threads_forbidden = false;
        StopPerformanceMonitor();
    }
};

struct reading {
    std::string name;
    std::function<void()> read;
};

void PrintTo(const reading& reading, std::ostream* out) {
    *out << reading.name;
}

const std::vector<reading>& readings() {
    static const std::vector<reading> all = {
        {"GetCpuUsage", [] { GetCpuUsage(0); }},
        {"GetRamAmount", [] { GetRamAmount(); }},
        {"GetRamUsage", [] { GetRamUsage(); }},
        {"GetSwapAmount", [] { GetSwapAmount(); }},
        {"GetSwapUsage", [] { GetSwapUsage(); }},
        {"GetFormattedProcUsage", [] { GetFormattedProcUsage(); }},
        {"GetFormattedRamUsage", [] { GetFormattedRamUsage(); }},
        {"GetMountPaths", [] { GetMountPaths(nullptr); }},
        {"GetMountPathsUsage", [] { GetMountPathsUsage(nullptr); }},
    };
    return all;
}

class EveryReading : public PerformanceMonitor, public testing::WithParamInterface<reading> {};

TEST_P(EveryReading, StartsTheSamplerOnce) {
    EXPECT_EQ(threads_started, 0);
    GetParam().read();
    EXPECT_EQ(threads_started, 1);
    GetParam().read();
    EXPECT_EQ(threads_started, 1);
}

TEST_P(EveryReading, DoesNotStartAStoppedSampler) {
    StartPerformanceMonitor();
    StopPerformanceMonitor();
    GetParam().read();
    EXPECT_EQ(threads_started, 1);
}

INSTANTIATE_TEST_SUITE_P(PerformanceMonitor, EveryReading, testing::ValuesIn(readings()),
                         [](const auto& test) { return test.param.name; });

TEST_F(PerformanceMonitor, MountReadingsDoNotTouchTheirArgument) {
    char text[] = "text";
    char* paths[] = {text, nullptr};
    GetMountPaths(paths);
    GetMountPathsUsage(paths);
    EXPECT_EQ(paths[0], text);
    EXPECT_EQ(paths[1], nullptr);
    EXPECT_STREQ(text, "text");
}

TEST_F(PerformanceMonitor, NeitherFillingNorTickCountsStartIt) {
    _perf_mon_data data;
    FillPerformanceData(&data);
    EXPECT_GT(data.ram_amount, 0U);
    std::array<long, 3> ticks{-1, -1, -1};
    get_cpu_states(ticks.data(), 0);
    EXPECT_GT(ticks[0] + ticks[1] + ticks[2], 0);
    EXPECT_EQ(threads_started, 0);
}

TEST_F(PerformanceMonitor, IsStartedOnce) {
    StartPerformanceMonitor();
    StartPerformanceMonitor();
    GetCpuUsage(0);
    EXPECT_EQ(threads_started, 1);
}

// Holds threads back until `count` of them are there.
class start_line {
public:
    explicit start_line(unsigned int count) { pthread_barrier_init(&barrier_, nullptr, count); }
    ~start_line() { pthread_barrier_destroy(&barrier_); }
    start_line(const start_line&) = delete;
    start_line& operator=(const start_line&) = delete;

    void wait() { pthread_barrier_wait(&barrier_); }

private:
    pthread_barrier_t barrier_;
};

TEST_F(PerformanceMonitor, IsStartedOnceByManyThreadsAtOnce) {
    constexpr int count = 16;
    start_line at_once(count);
    std::vector<std::thread> threads;
    threads.reserve(count);
    for (int number = 0; number < count; ++number) {
        threads.emplace_back([&at_once, number] {
            at_once.wait();
            readings()[static_cast<std::size_t>(number) % readings().size()].read();
            // Whoever started it, it runs now: the memory has been looked at.
            EXPECT_NE(GetRamAmount(), 0U);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(threads_started, count + 1);
}

TEST_F(PerformanceMonitor, IsReadByManyThreadsWhileItSamples) {
    kiv_test::stepped_wait seconds;
    StartPerformanceMonitor();
    std::atomic<bool> done = false;
    std::vector<std::thread> threads;
    for (const reading& each : readings()) {
        threads.emplace_back([&] {
            while (!done) {
                each.read();
                std::this_thread::yield();
            }
        });
    }
    for (int sample = 0; sample < 20; ++sample) {
        seconds.step();
    }
    StopPerformanceMonitor();
    done = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(PerformanceMonitor, IsNotStoppedBeforeItWasStarted) {
    StopPerformanceMonitor();
    EXPECT_EQ(threads_started, 0);
    GetCpuUsage(0);
    EXPECT_EQ(threads_started, 1);
}

TEST_F(PerformanceMonitor, IsNeverStartedAgain) {
    StartPerformanceMonitor();
    StopPerformanceMonitor();
    StartPerformanceMonitor();
    EXPECT_EQ(threads_started, 1);
}

TEST_F(PerformanceMonitor, IsStoppedTwiceWithoutHarm) {
    StartPerformanceMonitor();
    StopPerformanceMonitor();
    const std::string loads = GetFormattedProcUsage();
    const std::string memory = GetFormattedRamUsage();
    StopPerformanceMonitor();
    EXPECT_EQ(GetFormattedProcUsage(), loads);
    EXPECT_EQ(GetFormattedRamUsage(), memory);
}

TEST_F(PerformanceMonitor, IsStoppedByManyThreadsAtOnce) {
    StartPerformanceMonitor();
    constexpr int count = 8;
    start_line at_once(count);
    std::vector<std::thread> threads;
    threads.reserve(count);
    for (int number = 0; number < count; ++number) {
        threads.emplace_back([&at_once] {
            at_once.wait();
            StopPerformanceMonitor();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST_F(PerformanceMonitor, IsStoppedByTheEndOfTheLibrary) {
    InitializeLibrary("");
    StartPerformanceMonitor();
    ShutdownLibrary(); // a sampler left behind would fail the test
    ShutdownLibrary();
    GetRamAmount();
    EXPECT_EQ(threads_started, 1);
}

TEST_F(PerformanceMonitor, IsTriedAgainWhenItsThreadCannotBeStarted) {
    threads_forbidden = true;
    EXPECT_EQ(GetCpuUsage(0), 0.0);
    EXPECT_GT(GetRamAmount(), 0U); // every reading tries again and has the figures of its own try
    EXPECT_GT(GetSwapAmount(), 0U);
    StopPerformanceMonitor(); // there is nothing to stop

    threads_forbidden = false;
    EXPECT_EQ(GetCpuUsage(0), 0.0);
    EXPECT_EQ(threads_started, 1);
}

// The open descriptors of the system's figures, by file.
std::map<std::string, int> open_figures() {
    std::map<std::string, int> figures;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone; // as the one that lists the directory will be
        const std::string target = std::filesystem::read_symlink(entry.path(), gone);
        if (target == "/proc/stat" || target == "/proc/meminfo") {
            figures[target] = std::stoi(entry.path().filename());
        }
    }
    return figures;
}

TEST_F(PerformanceMonitor, KeepsItsFilesOpenFromSampleToSample) {
    kiv_test::stepped_wait seconds;
    StartPerformanceMonitor();
    seconds.step();
    const std::map<std::string, int> before = open_figures();
    EXPECT_EQ(before.size(), 2U);
    for (const auto& [path, descriptor] : before) {
        EXPECT_EQ(::fcntl(descriptor, F_GETFD), FD_CLOEXEC) << path;
    }
    for (int sample = 0; sample < 5; ++sample) {
        seconds.step();
    }
    EXPECT_EQ(open_figures(), before);
    StopPerformanceMonitor();
    EXPECT_TRUE(open_figures().empty());
}

TEST_F(PerformanceMonitor, MayRunAtTheEndOfTheProcess) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer calls a thread that runs at the end a leak";
#endif
    EXPECT_EXIT(
        {
            GetCpuUsage(0);
            std::exit(7); // NOLINT(concurrency-mt-unsafe): this is what is tested
        },
        testing::ExitedWithCode(7), "");
}

TEST_F(PerformanceMonitor, KeepsItsValuesInAForkedChild) {
    kiv_test::stepped_wait seconds;
    const unsigned long long amount = GetRamAmount();
    seconds.await();
    const std::string memory = GetFormattedRamUsage();
    EXPECT_GT(amount, 0U);
    EXPECT_EQ(kiv_test::report_of_child([] { return GetFormattedRamUsage(); }), memory);
}

TEST_F(PerformanceMonitor, IsReadAndStoppedInAChildForkedWhileTheSamplerHeldItsLock) {
    kiv_test::stepped_wait seconds;
    GetCpuUsage(0);
    seconds.step();
    const std::string loads = GetFormattedProcUsage();
    const std::string memory = GetFormattedRamUsage();
    pthread_mutex_lock(kiv_test::stepped_wait::mutex());
    const std::string read_by_child = kiv_test::report_of_child([] {
        constexpr unsigned int limit_seconds = 60;
        ::alarm(limit_seconds); // ends a child that waits for ever
        const std::string read = GetFormattedProcUsage() + GetFormattedRamUsage();
        StopPerformanceMonitor();
        return read == GetFormattedProcUsage() + GetFormattedRamUsage() ? read : "others later";
    });
    pthread_mutex_unlock(kiv_test::stepped_wait::mutex());
    EXPECT_EQ(read_by_child, loads + memory);
}

// The place of a processor among those online, as the system lists them; -1 when it is not there.
int place_of(int processor) {
    std::string names;
    std::array<char, 4096> buffer{};
    const int file = ::open("/sys/devices/system/cpu/online", O_RDONLY | O_CLOEXEC);
    if (file != -1 && ::read(file, buffer.data(), buffer.size() - 1) > 0) {
        names = buffer.data();
    }
    ::close(file);
    // Such as "0-3,5,7-8".
    std::istringstream ranges(names);
    int place = 0;
    for (std::string range; std::getline(ranges, range, ',');) {
        const std::size_t dash = range.find('-');
        const int first = std::stoi(range);
        const int last = dash == std::string::npos ? first : std::stoi(range.substr(dash + 1));
        if (processor >= first && processor <= last) {
            return place + processor - first;
        }
        place += last - first + 1;
    }
    return -1;
}

// The first processor that this process may run on; -1 when there is none.
int usable_processor() {
    cpu_set_t usable;
    if (::sched_getaffinity(0, sizeof(usable), &usable) == 0) {
        for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
            if (CPU_ISSET(static_cast<std::size_t>(processor), &usable)) {
                return processor;
            }
        }
    }
    return -1;
}

// Lets the calling thread run on `processor` alone and count as no niced one.
bool pin_to(int processor) {
    cpu_set_t only;
    CPU_ZERO(&only);
    CPU_SET(static_cast<std::size_t>(processor), &only);
    return ::sched_setaffinity(0, sizeof(only), &only) == 0 &&
           (::getpriority(PRIO_PROCESS, 0) <= 0 || ::setpriority(PRIO_PROCESS, 0, 0) == 0);
}

TEST_F(PerformanceMonitor, ReadsNear100ForAProcessorInABusyLoop) {
    const int processor = usable_processor();
    const int place = place_of(processor);
    if (place == -1) {
        GTEST_SKIP() << "the system does not tell which processors are online";
    }
    enum class loop_state { starting, running, refused };
    std::atomic<loop_state> state = loop_state::starting;
    std::atomic<bool> done = false;
    std::thread loop([&] {
        if (!pin_to(processor)) {
            state = loop_state::refused;
            return;
        }
        state = loop_state::running;
        while (!done) {
        }
    });
    kiv_test::wait_until([&] { return state != loop_state::starting; });
    const bool near_100 = state == loop_state::running && kiv_test::wait_until([place] {
                              constexpr double nearly_all = 90.0;
                              return GetCpuUsage(place) > nearly_all;
                          });
    done = true;
    loop.join();
    if (state == loop_state::refused) {
        GTEST_SKIP() << "a thread may be neither pinned to a processor nor freed of its niceness";
    }
    EXPECT_TRUE(near_100);
}

} // namespace
