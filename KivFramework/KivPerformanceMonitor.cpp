#include "KivFramework/KivPerformanceMonitor.h"

#include "KivFramework/KivLibrary.h"
#include "KivFramework/KivProcesses.h"
#include "KivFramework/internal/mutex_guard.h"
#include "KivFramework/internal/processor_load.h"
#include "KivFramework/platform/memory_pages.h"
#include "KivFramework/platform/processor_ticks.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <ctime>
#include <memory>
#include <optional>
#include <span>
#include <utility>

#include <pthread.h>
#include <unistd.h>

namespace KivFramework {
namespace {

using internal::mutex_guard;
using platform::processor_ticks;

// Deliberate: the limit of the monitor, whatever the machine has.
constexpr std::size_t processors_limit = 64;

enum class stage { not_started, running, stopped };

// A host may exit while the sampler runs, so nothing here has a destructor.
std::atomic<stage> current_stage = stage::not_started;
pthread_mutex_t start_stop_mutex = PTHREAD_MUTEX_INITIALIZER;       // taken before _monitor_mutex
KivProcesses::kivThreadObj* _internal_performance_thread = nullptr; // guarded by start_stop_mutex
pid_t sampled_process = 0; // where the sampler runs, no child of it; guarded by start_stop_mutex

pthread_mutex_t _monitor_mutex = PTHREAD_MUTEX_INITIALIZER; // guards what follows
pthread_cond_t shutdown_set = PTHREAD_COND_INITIALIZER;
int _internal_performance_thread_shutdown = 0;
// Its figures are written under the lock but read without it: a child that was forked while the
// sampler held it would wait for ever. Its processors are there once the stage says so.
_perf_mon_data _monitor_data;

template <typename number_type>
std::atomic_ref<number_type> figure(number_type& field) {
    return std::atomic_ref(field);
}

void store_memory_figures(_perf_mon_data& data, const std::optional<platform::memory_pages>& read) {
    unsigned long long amount = 100;
    unsigned long long usage = 0;
    if (read) {
        const unsigned long long present = read->free + read->active + read->inactive;
        // Deliberate: the product has 32 bits, and it is set against the bytes of the previous
        // sample, 0 before the first one.
        amount = static_cast<unsigned int>(present * read->page_size);
        usage = figure(data.swap_amount) - read->free * read->page_size;
    }
    figure(data.ram_amount) = amount;
    figure(data.ram_usage) = usage;
    // Deliberate: swap space is not measured.
    figure(data.swap_amount) = amount;
    figure(data.swap_usage) = usage;
}

void fill_from(platform::memory_pages_reader& memory, _perf_mon_data& data) {
    const auto read = memory.read(); // before the lock, so that no reader waits for the system
    const mutex_guard guard(&_monitor_mutex);
    store_memory_figures(data, read);
}

// Waits a second.
//
// \returns false when the sampler is to end, without waiting any longer: its last values are those
//          of a whole second.
bool wait_for_next_sample() {
    timespec deadline{};
    ::clock_gettime(CLOCK_MONOTONIC, &deadline); // which cannot fail
    ++deadline.tv_sec;
    const mutex_guard guard(&_monitor_mutex);
    while (_internal_performance_thread_shutdown == 0) {
        if (::pthread_cond_clockwait(&shutdown_set, &_monitor_mutex, CLOCK_MONOTONIC, &deadline) ==
            ETIMEDOUT) {
            return true;
        }
    }
    return false;
}

float load_between(const processor_ticks& previous, const processor_ticks& current) {
    // When a processor goes on or off line, those behind it change places; their counts have
    // nothing to do with each other.
    if (previous.processor != current.processor) {
        return 0.0F;
    }
    const auto counts = [](const processor_ticks& ticks) {
        return internal::tick_counts{static_cast<int>(ticks.user), static_cast<int>(ticks.system),
                                     static_cast<int>(ticks.idle)};
    };
    return internal::processor_load(counts(previous), counts(current));
}

void take_samples() {
    platform::memory_pages_reader memory;
    platform::processor_ticks_reader processors;
    std::array<processor_ticks, processors_limit> previous_table;
    std::array<processor_ticks, processors_limit> current_table;

    fill_from(memory, _monitor_data);
    // The count was set before the thread took the lock for the first time, and stays.
    const std::size_t count =
        std::min(static_cast<std::size_t>(_monitor_data.cpu_count), processors_limit);
    const std::span current(current_table.data(), count);
    processors.read(current);
    while (wait_for_next_sample()) {
        previous_table = current_table;
        // A processor that cannot be read keeps its counts, as if no ticks had passed.
        processors.read(current);
        {
            const mutex_guard guard(&_monitor_mutex);
            for (std::size_t index = 0; index < count; ++index) {
                figure(_monitor_data.cpu_usage[index])
                    .store(load_between(previous_table[index], current_table[index]),
                           std::memory_order_relaxed);
            }
        }
        fill_from(memory, _monitor_data);
    }
}

void* _perf_monitor_thread(void* block) {
    take_samples();
    KivProcesses::EndThread(0, block);
    return nullptr;
}

void start_if_needed() {
    if (current_stage.load(std::memory_order_acquire) == stage::not_started) {
        KivPerformanceMonitor::StartPerformanceMonitor();
    }
}

// As a stream writes it with precision 3, in the "C" locale.
void append_load(std::string& text, double load) {
    constexpr int significant_digits = 3;
    std::array<char, 16> digits; // the longest are like "0.00123" and "1.23e-05"
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), load,
                                      std::chars_format::general, significant_digits);
    text.append(digits.data(), result.ptr);
}

} // namespace
} // namespace KivFramework

using namespace KivFramework;

void KivPerformanceMonitor::StartPerformanceMonitor() {
    const mutex_guard lifecycle(&start_stop_mutex);
    if (current_stage.load(std::memory_order_relaxed) != stage::not_started) {
        return;
    }
    const int count = GetProcessorsCount();
    auto loads = std::make_unique<double[]>(static_cast<std::size_t>(count));
    FillPerformanceData(&_monitor_data);

    const mutex_guard guard(&_monitor_mutex); // so that the sampler finds all of it
    _internal_performance_thread = KivProcesses::SpawnThread(_perf_monitor_thread, nullptr);
    if (_internal_performance_thread == nullptr) {
        return;
    }
    _monitor_data.cpu_count = count;
    _monitor_data.cpu_usage = loads.release(); // never freed: readable after the stop
    sampled_process = ::getpid();
    current_stage.store(stage::running, std::memory_order_release);
}

void KivPerformanceMonitor::StopPerformanceMonitor() {
    const mutex_guard lifecycle(&start_stop_mutex);
    if (current_stage.load(std::memory_order_relaxed) == stage::not_started) {
        return;
    }
    if (sampled_process == ::getpid()) { // a forked child has no sampler to wait for
        {
            const mutex_guard guard(&_monitor_mutex);
            _internal_performance_thread_shutdown = 1;
            ::pthread_cond_signal(&shutdown_set);
        }
        // The handle goes with the first join; a second stop joins null, which is ignored.
        KivProcesses::JoinThread(std::exchange(_internal_performance_thread, nullptr));
    }
    // Deliberate: not back to the beginning, so nothing starts the monitor again.
    current_stage.store(stage::stopped, std::memory_order_release);
}

double KivPerformanceMonitor::GetCpuUsage(int index) {
    start_if_needed();
    if (current_stage.load(std::memory_order_acquire) == stage::not_started || index < 0 ||
        index >= _monitor_data.cpu_count) {
        return 0.0;
    }
    return figure(_monitor_data.cpu_usage[index]).load(std::memory_order_relaxed);
}

unsigned long long KivPerformanceMonitor::GetRamAmount() {
    start_if_needed();
    return figure(_monitor_data.ram_amount);
}

unsigned long long KivPerformanceMonitor::GetRamUsage() {
    start_if_needed();
    return figure(_monitor_data.ram_usage);
}

unsigned long long KivPerformanceMonitor::GetSwapAmount() {
    start_if_needed();
    return figure(_monitor_data.swap_amount);
}

unsigned long long KivPerformanceMonitor::GetSwapUsage() {
    start_if_needed();
    return figure(_monitor_data.swap_usage);
}

std::string KivPerformanceMonitor::GetFormattedProcUsage() {
    std::string text;
    const int count = GetProcessorsCount();
    for (int index = 0; index < count; ++index) {
        append_load(text, GetCpuUsage(index));
        text += ' ';
    }
    return text;
}

std::string KivPerformanceMonitor::GetFormattedRamUsage() {
    std::string text = std::to_string(GetRamAmount());
    for (const unsigned long long next : {GetRamUsage(), GetSwapAmount(), GetSwapUsage()}) {
        text.append(" ").append(std::to_string(next));
    }
    return text;
}

void KivPerformanceMonitor::GetMountPaths(char** /*paths*/) {
    start_if_needed();
}

void KivPerformanceMonitor::GetMountPathsUsage(char** /*paths*/) {
    start_if_needed();
}

void KivPerformanceMonitor::get_cpu_states(long* out, int processor) {
    if (processor < 0) {
        return;
    }
    platform::processor_ticks_reader reader;
    processor_ticks ticks;
    if (reader.read({&ticks, 1}, static_cast<std::size_t>(processor)) == 0) {
        return;
    }
    out[0] = ticks.user;
    out[1] = ticks.system;
    out[2] = ticks.idle;
}

void KivPerformanceMonitor::FillPerformanceData(_perf_mon_data* data) {
    platform::memory_pages_reader memory;
    fill_from(memory, *data);
}
