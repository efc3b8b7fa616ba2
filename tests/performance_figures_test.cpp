// The monitor over a system that the test plays: this program has processors and memory of its own
// in the place of the platform's, and its seconds pass when it says so.

#include "KivFramework/KivPerformanceMonitor.h"
#include "KivFramework/platform/memory_pages.h"
#include "KivFramework/platform/processor_ticks.h"
#include "KivFramework/platform/processors.h"

#include "tests/support/allocation_count.h"
#include "tests/support/stepped_wait.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <locale>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace {

using KivFramework::platform::memory_pages;
using KivFramework::platform::processor_ticks;

std::mutex system_mutex; // guards what follows from the sampler
std::optional<memory_pages> system_memory = memory_pages{100, 20, 3, 4096};
std::vector<processor_ticks> system_processors = {{0, 0, 0, 0}};
bool processors_readable = true;

} // namespace

namespace KivFramework::platform {

memory_pages_reader::memory_pages_reader() : file_(nullptr) {}

std::optional<memory_pages> memory_pages_reader::read() {
    const std::scoped_lock guard(system_mutex);
    return system_memory;
}

processor_ticks_reader::processor_ticks_reader() : file_(nullptr) {}

std::size_t processor_ticks_reader::read(std::span<processor_ticks> ticks, std::size_t first) {
    const std::scoped_lock guard(system_mutex);
    if (!processors_readable || first >= system_processors.size()) {
        return 0;
    }
    const std::size_t count = std::min(ticks.size(), system_processors.size() - first);
    const auto begin = system_processors.begin() + static_cast<std::ptrdiff_t>(first);
    std::copy_n(begin, count, ticks.begin());
    return count;
}

std::optional<int> processors_online() {
    const std::scoped_lock guard(system_mutex);
    return static_cast<int>(system_processors.size());
}

} // namespace KivFramework::platform

namespace {

using namespace KivFramework;
using namespace KivFramework::KivPerformanceMonitor;

constexpr unsigned long long page_size = 4096;

void set_memory(unsigned long long free, unsigned long long active, unsigned long long inactive) {
    const std::scoped_lock guard(system_mutex);
    system_memory = memory_pages{free, active, inactive, page_size};
}

void make_memory_unreadable() {
    const std::scoped_lock guard(system_mutex);
    system_memory.reset();
}

// Processors 0 to `count` - 1, which have counted nothing.
void set_processors(int count) {
    const std::scoped_lock guard(system_mutex);
    system_processors.clear();
    for (int number = 0; number < count; ++number) {
        system_processors.push_back({number, 0, 0, 0});
    }
}

void count_ticks(std::size_t place, long user, long system, long idle) {
    const std::scoped_lock guard(system_mutex);
    system_processors[place].user += user;
    system_processors[place].system += system;
    system_processors[place].idle += idle;
}

void make_processors_readable(bool readable) {
    const std::scoped_lock guard(system_mutex);
    processors_readable = readable;
}

_perf_mon_data filled_once() {
    _perf_mon_data data;
    FillPerformanceData(&data);
    return data;
}

TEST(FillPerformanceData, CountsFreeActiveAndInactivePages) {
    set_memory(1000, 200, 30);
    EXPECT_EQ(filled_once().ram_amount, 1230 * page_size);
}

TEST(FillPerformanceData, WrapsTheAmountAt32Bits) {
    constexpr unsigned long long pages_of_4_gib = 1ULL << 20U;
    set_memory(pages_of_4_gib - 1, 0, 0);
    EXPECT_EQ(filled_once().ram_amount, UINT_MAX - page_size + 1);
    set_memory(pages_of_4_gib, 0, 0);
    EXPECT_EQ(filled_once().ram_amount, 0U);
    set_memory(pages_of_4_gib, 5 * pages_of_4_gib, 7);
    EXPECT_EQ(filled_once().ram_amount, 7 * page_size);
    set_memory(1ULL << 32U, 3, 0); // more pages than 32 bits count
    EXPECT_EQ(filled_once().ram_amount, 3 * page_size);
}

TEST(FillPerformanceData, WrapsTheUsageOfAFreshRecord) {
    set_memory(1000, 200, 30);
    EXPECT_EQ(filled_once().ram_usage, 0 - 1000 * page_size);
    EXPECT_GT(filled_once().ram_usage, 1ULL << 63U);
}

TEST(FillPerformanceData, MakesTheUsageThePreviousAmountLessWhatIsFreeNow) {
    set_memory(1000, 200, 30);
    _perf_mon_data data = filled_once();
    set_memory(900, 900, 900);
    FillPerformanceData(&data);
    EXPECT_EQ(data.ram_usage, 1230 * page_size - 900 * page_size);
    EXPECT_EQ(data.ram_amount, 2700 * page_size);
    FillPerformanceData(&data);
    EXPECT_EQ(data.ram_usage, 1800 * page_size);
}

TEST(FillPerformanceData, TakesThePreviousAmountFromTheSwapField) {
    set_memory(1000, 200, 30);
    _perf_mon_data data;
    data.ram_amount = 1;
    data.swap_amount = 5000 * page_size;
    FillPerformanceData(&data);
    EXPECT_EQ(data.ram_usage, 4000 * page_size);
}

TEST(FillPerformanceData, SubtractsFreeBytesBeyond4GiBIn64Bits) {
    constexpr unsigned long long free_pages = 3ULL << 20U; // 12 GiB
    set_memory(free_pages, 0, 10);
    _perf_mon_data data = filled_once();
    EXPECT_EQ(data.ram_usage, 0 - free_pages * page_size);
    FillPerformanceData(&data);
    EXPECT_EQ(data.ram_usage, 10 * page_size - free_pages * page_size);
}

TEST(FillPerformanceData, CopiesTheMemoryFiguresToTheSwapFigures) {
    set_memory(1000, 200, 30);
    _perf_mon_data data = filled_once();
    FillPerformanceData(&data);
    EXPECT_EQ(data.swap_amount, data.ram_amount);
    EXPECT_EQ(data.swap_usage, data.ram_usage);
}

TEST(FillPerformanceData, Gives100And0WhenTheSystemDoesNotTell) {
    set_memory(1000, 200, 30);
    _perf_mon_data data = filled_once();
    make_memory_unreadable();
    FillPerformanceData(&data);
    EXPECT_EQ(data.ram_amount, 100U);
    EXPECT_EQ(data.ram_usage, 0U);
    EXPECT_EQ(data.swap_amount, 100U);
    EXPECT_EQ(data.swap_usage, 0U);

    set_memory(1000, 200, 30);
    FillPerformanceData(&data);
    EXPECT_EQ(data.ram_amount, 1230 * page_size);
    EXPECT_EQ(data.ram_usage, 100 - 1000 * page_size);
}

TEST(FillPerformanceData, LeavesTheProcessorFieldsAlone) {
    double load = 12.5;
    _perf_mon_data data;
    data.cpu_count = 1;
    data.cpu_usage = &load;
    FillPerformanceData(&data);
    make_memory_unreadable();
    FillPerformanceData(&data);
    EXPECT_EQ(data.cpu_count, 1);
    EXPECT_EQ(data.cpu_usage, &load);
    EXPECT_EQ(load, 12.5);
}

// The counts of a processor over a preset that shows what was left alone.
std::vector<long> cpu_states(int processor) {
    std::vector<long> counts = {-1, -2, -3};
    get_cpu_states(counts.data(), processor);
    return counts;
}

TEST(GetCpuStates, GivesUserSystemAndIdleTicks) {
    set_processors(70);
    count_ticks(0, 1, 2, 3);
    count_ticks(69, 5'000'000'000, 6'000'000'000, 7'000'000'000);
    EXPECT_EQ(cpu_states(0), (std::vector<long>{1, 2, 3}));
    EXPECT_EQ(cpu_states(69), (std::vector<long>{5'000'000'000, 6'000'000'000, 7'000'000'000}));
}

TEST(GetCpuStates, CountsTheProcessorsOnline) {
    {
        const std::scoped_lock guard(system_mutex);
        system_processors = {{0, 1, 2, 3}, {4, 5, 6, 7}}; // 1 to 3 are offline
    }
    EXPECT_EQ(cpu_states(1), (std::vector<long>{5, 6, 7}));
    EXPECT_EQ(cpu_states(4), (std::vector<long>{-1, -2, -3}));
}

TEST(GetCpuStates, LeavesTheOutputForAProcessorThatIsNotThere) {
    set_processors(2);
    for (const int processor : {2, 64, INT_MAX, -1, INT_MIN}) {
        EXPECT_EQ(cpu_states(processor), (std::vector<long>{-1, -2, -3})) << processor;
    }
}

TEST(GetCpuStates, LeavesTheOutputWhenTheSystemDoesNotTell) {
    make_processors_readable(false);
    EXPECT_EQ(cpu_states(0), (std::vector<long>{-1, -2, -3}));
}

// The monitor of a process lives once, so each of these tests needs a process of its own, as CTest
// gives it.
class Sampler : public testing::Test {
protected:
    void SetUp() override {
        static bool used = false;
        if (used) {
            GTEST_SKIP() << "the monitor of this process has stopped for good";
        }
        used = true;
    }

    void TearDown() override {
        StopPerformanceMonitor(); // which does not wait for a step
    }

    // Starts the sampler, which has then read the counters for the first time.
    void start() {
        StartPerformanceMonitor();
        seconds.await();
    }

    kiv_test::stepped_wait seconds;
};

TEST_F(Sampler, ShowsNoLoadBeforeItsFirstSample) {
    count_ticks(0, 1000, 1000, 0); // since the system started
    EXPECT_EQ(GetCpuUsage(0), 0.0);
    seconds.await();
    EXPECT_EQ(GetCpuUsage(0), 0.0);
    EXPECT_EQ(GetFormattedProcUsage(), "0 ");
}

TEST_F(Sampler, ReadsUserAndSystemTimeAsLoad) {
    set_processors(6);
    start();
    count_ticks(0, 100, 0, 0);
    count_ticks(1, 0, 100, 0);
    count_ticks(2, 30, 20, 50);
    count_ticks(3, 0, 0, 100);
    count_ticks(4, 1, 0, 2);
    seconds.step();

    EXPECT_EQ(GetCpuUsage(0), 100.0);
    EXPECT_EQ(GetCpuUsage(1), 100.0);
    EXPECT_EQ(GetCpuUsage(2), 50.0);
    EXPECT_EQ(GetCpuUsage(3), 0.0);
    EXPECT_EQ(GetCpuUsage(4), static_cast<double>(static_cast<float>(100.0 / 3)));
    EXPECT_EQ(GetCpuUsage(5), 0.0); // its counters did not move
}

TEST_F(Sampler, ComparesEachSampleWithThePreviousOne) {
    start();
    count_ticks(0, 100, 0, 0);
    seconds.step();
    count_ticks(0, 25, 0, 75);
    seconds.step();
    EXPECT_EQ(GetCpuUsage(0), 25.0);
    seconds.step();
    EXPECT_EQ(GetCpuUsage(0), 0.0);
}

TEST_F(Sampler, StaysWithin0And100WhereACounterRunsBackwards) {
    set_processors(2);
    count_ticks(0, 500, 500, 500);
    count_ticks(1, 500, 500, 500);
    start();
    count_ticks(0, 100, 0, -50);
    count_ticks(1, -20, 0, 100);
    seconds.step();
    EXPECT_EQ(GetCpuUsage(0), 100.0);
    EXPECT_EQ(GetCpuUsage(1), 0.0);
}

TEST_F(Sampler, FollowsCountersBeyond32Bits) {
    count_ticks(0, INT_MAX, UINT_MAX, 5L * UINT_MAX);
    start();
    count_ticks(0, 10, 20, 70);
    seconds.step();
    EXPECT_NEAR(GetCpuUsage(0), 30.0, 0.0001);
}

TEST_F(Sampler, Shows0ForAnIntervalWhoseCountersCannotBeRead) {
    start();
    count_ticks(0, 100, 0, 0);
    make_processors_readable(false);
    seconds.step();
    EXPECT_EQ(GetCpuUsage(0), 0.0);

    make_processors_readable(true);
    count_ticks(0, 0, 0, 300);
    seconds.step();
    EXPECT_EQ(GetCpuUsage(0), 25.0); // of both intervals
}

TEST_F(Sampler, Shows0AfterAStartWithoutCounters) {
    make_processors_readable(false);
    set_processors(2);
    count_ticks(0, 500, 0, 0);
    start();
    make_processors_readable(true);
    seconds.step();
    EXPECT_EQ(GetFormattedProcUsage(), "0 0 ");
    count_ticks(0, 1, 0, 1);
    seconds.step();
    EXPECT_EQ(GetFormattedProcUsage(), "50 0 ");
}

TEST_F(Sampler, Shows0WhereProcessorsChangePlaces) {
    set_processors(3);
    start();
    {
        const std::scoped_lock guard(system_mutex);
        system_processors = {{0, 50, 0, 50}, {2, 900, 0, 0}}; // 1 went offline
    }
    seconds.step();
    EXPECT_EQ(GetCpuUsage(0), 50.0);
    EXPECT_EQ(GetCpuUsage(1), 0.0);
    EXPECT_EQ(GetCpuUsage(2), 0.0);
    EXPECT_EQ(GetFormattedProcUsage(), "50 0 "); // those online now

    count_ticks(1, 30, 0, 10);
    seconds.step();
    EXPECT_EQ(GetCpuUsage(1), 75.0);
}

TEST_F(Sampler, CountsTheProcessorsOfItsStart) {
    set_processors(1);
    start();
    set_processors(3);
    count_ticks(0, 10, 0, 0);
    count_ticks(2, 10, 0, 0);
    seconds.step();
    EXPECT_EQ(GetCpuUsage(0), 100.0);
    EXPECT_EQ(GetCpuUsage(2), 0.0);
    EXPECT_EQ(GetFormattedProcUsage(), "100 0 0 ");
}

TEST_F(Sampler, MeasuresTheFirst64ProcessorsOnly) {
    constexpr int count = 100;
    constexpr int measured = 64;
    set_processors(count);
    start();
    for (std::size_t place = 0; place < count; ++place) {
        count_ticks(place, 10, 0, 0);
    }
    seconds.step();
    std::string text;
    for (int index = 0; index < count; ++index) {
        const double expected = index < measured ? 100.0 : 0.0;
        EXPECT_EQ(GetCpuUsage(index), expected) << index;
        text += index < measured ? "100 " : "0 ";
    }
    EXPECT_EQ(GetFormattedProcUsage(), text);
}

TEST_F(Sampler, Reads0ForAnIndexThatNoProcessorHas) {
    set_processors(2);
    start();
    count_ticks(0, 10, 0, 0);
    count_ticks(1, 10, 0, 0);
    seconds.step();
    for (const int index : {2, 63, 64, INT_MAX, -1, INT_MIN}) {
        EXPECT_EQ(GetCpuUsage(index), 0.0) << index;
    }
}

TEST_F(Sampler, FillsTheMemoryFiguresAtTheStartAndAgainInItsThread) {
    set_memory(1000, 200, 30);
    EXPECT_EQ(GetRamAmount(), 1230 * page_size);
    seconds.await();
    // The first fill gave a wrapped usage; the thread's fill has a previous amount.
    EXPECT_EQ(GetRamUsage(), 230 * page_size);
    EXPECT_EQ(GetSwapAmount(), 1230 * page_size);
    EXPECT_EQ(GetSwapUsage(), 230 * page_size);
}

TEST_F(Sampler, RefreshesTheMemoryFiguresWithEverySample) {
    set_memory(1000, 200, 30);
    start();
    set_memory(400, 300, 300);
    seconds.step();
    EXPECT_EQ(GetRamAmount(), 1000 * page_size);
    EXPECT_EQ(GetRamUsage(), 830 * page_size);
    seconds.step();
    EXPECT_EQ(GetRamUsage(), 600 * page_size);

    make_memory_unreadable();
    seconds.step();
    EXPECT_EQ(GetFormattedRamUsage(), "100 0 100 0");
}

TEST_F(Sampler, AllocatesNothingForASample) {
    set_processors(4);
    start();
    const long before = kiv_test::allocations();
    for (int sample = 0; sample < 10; ++sample) {
        count_ticks(0, 1, 1, 1);
        seconds.step();
    }
    EXPECT_EQ(kiv_test::allocations(), before);
}

TEST_F(Sampler, LeavesItsLastValuesReadableAfterTheStop) {
    set_processors(2);
    set_memory(1000, 200, 30);
    start();
    count_ticks(0, 30, 0, 10);
    seconds.step();
    count_ticks(0, 10, 0, 30);
    set_memory(1, 1, 1);
    StopPerformanceMonitor();

    EXPECT_EQ(GetCpuUsage(0), 75.0);
    EXPECT_EQ(GetFormattedProcUsage(), "75 0 ");
    EXPECT_EQ(GetRamAmount(), 1230 * page_size);
    EXPECT_EQ(GetRamUsage(), 230 * page_size);
    EXPECT_EQ(GetSwapAmount(), 1230 * page_size);
    EXPECT_EQ(GetSwapUsage(), 230 * page_size);
    EXPECT_EQ(GetFormattedRamUsage(), "5038080 942080 5038080 942080");
}

// Groups digits and writes a decimal comma, as many national locales do.
class grouping_punctuation : public std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST_F(Sampler, WritesLoadsWithThreeSignificantDigits) {
    set_processors(8);
    start();
    count_ticks(0, 125, 0, 875);
    count_ticks(1, 31416, 0, 1'000'000 - 31416);
    count_ticks(2, 1, 0, 0);
    count_ticks(3, 0, 0, 1);
    count_ticks(4, 9996, 0, 4);           // 99.96 rounds up
    count_ticks(5, 1, 0, 999'999);        // 0.0001
    count_ticks(6, 1, 0, 9'999'999);      // 0.00001 is too small for a plain fraction
    count_ticks(7, 12345, 0, 10'000'000); // 0.123297...
    seconds.step();

    constexpr const char* expected = "12.5 3.14 100 0 100 0.0001 1e-05 0.123 ";
    EXPECT_EQ(GetFormattedProcUsage(), expected);
    const std::locale previous =
        std::locale::global(std::locale(std::locale(), new grouping_punctuation));
    EXPECT_EQ(GetFormattedProcUsage(), expected);
    std::locale::global(previous);
}

TEST_F(Sampler, WritesTheMemoryFiguresInOrder) {
    set_memory(1000, 200, 30);
    start();
    EXPECT_EQ(GetFormattedRamUsage(), "5038080 942080 5038080 942080");
    const std::locale previous =
        std::locale::global(std::locale(std::locale(), new grouping_punctuation));
    EXPECT_EQ(GetFormattedRamUsage(), "5038080 942080 5038080 942080");
    std::locale::global(previous);
}

} // namespace
