// The logger beside spdlog: the same line, made from a number and a text, to a file.
//
// Synchronous: both flush every line. Detached: the library's writer thread beside spdlog's
// asynchronous logger with its default queue (8192, producers wait when it is full) and one worker;
// "sustained" lasts until the last line is in the file, "burst" is what the producers alone pay.

#include "KivFramework/KivLogger.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

namespace {

namespace kiv = KivFramework::KivLogger;

constexpr const char* request_path = "/var/lib/service/requests";

// A fresh directory for the log files of one measurement.
class scratch_directory {
public:
    scratch_directory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kiv-log-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            std::abort();
        }
        path_ = pattern;
    }
    ~scratch_directory() { std::filesystem::remove_all(path_); }
    scratch_directory(const scratch_directory&) = delete;
    scratch_directory& operator=(const scratch_directory&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
};

class kiv_log {
public:
    kiv_log(const std::string& directory, bool detached) {
        kiv::SetLoggerBasePath(&logger_, directory);
        kiv::CreateLogger(&logger_, 1, 4);
        kiv::SetLoggerDetachedStatus(&logger_, detached);
    }
    ~kiv_log() { finish(); }
    kiv_log(const kiv_log&) = delete;
    kiv_log& operator=(const kiv_log&) = delete;

    void write(int number) {
        kiv::AddLogEntry(&logger_, 1, "server", "request %d for %s", number, request_path);
    }

    // Returns when no line waits.
    void drain() { kiv::FlushDetachedThread(&logger_); }

    // Returns when every line is in the file.
    void finish() {
        if (open_) {
            kiv::DestroyLogger(&logger_);
            open_ = false;
        }
    }

private:
    kiv::kivLogger logger_;
    bool open_ = true;
};

class spdlog_log {
public:
    spdlog_log(const std::string& directory, bool detached) {
        auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(directory + "/default.log");
        if (detached) {
            pool_ = std::make_shared<spdlog::details::thread_pool>(
                spdlog::details::default_async_q_size, 1);
            logger_ = std::make_shared<spdlog::async_logger>("server", std::move(sink), pool_,
                                                             spdlog::async_overflow_policy::block);
        } else {
            logger_ = std::make_shared<spdlog::logger>("server", std::move(sink));
            logger_->flush_on(spdlog::level::trace);
        }
        logger_->set_pattern("%m/%d/%Y %H:%M:%S - [%n] %v");
    }
    ~spdlog_log() { finish(); }
    spdlog_log(const spdlog_log&) = delete;
    spdlog_log& operator=(const spdlog_log&) = delete;

    void write(int number) { logger_->info("request {} for {}", number, request_path); }

    void drain() {
        while (pool_->queue_size() != 0) {
            std::this_thread::yield();
        }
    }

    void finish() {
        pool_.reset(); // the worker writes what is queued
        logger_.reset();
    }

private:
    std::shared_ptr<spdlog::details::thread_pool> pool_;
    std::shared_ptr<spdlog::logger> logger_;
};

template <typename log_type>
void synchronous_entry(benchmark::State& state) {
    const scratch_directory directory;
    log_type log(directory.path(), /*detached=*/false);
    int number = 0;
    for (auto _ : state) {
        log.write(++number);
    }
}

using wall_clock = std::chrono::steady_clock;
using seconds = std::chrono::duration<double>;

double thread_cpu_seconds() {
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

// What a producer's own clocks say of its share of the lines.
struct producer_times {
    wall_clock::time_point start;
    wall_clock::time_point end;
    double cpu_seconds = 0;
};

struct production {
    wall_clock::time_point start; // of the first producer
    wall_clock::time_point end;   // of the last one
    double cpu_seconds = 0;       // of all together
};

// Lets `producers` threads write their shares of `lines`, from a common start.
template <typename log_type>
production produce(log_type& log, int producers, int lines) {
    std::latch ready(producers);
    std::vector<producer_times> times(static_cast<std::size_t>(producers));
    std::vector<std::thread> threads;
    threads.reserve(times.size());
    for (producer_times& own : times) {
        threads.emplace_back([&log, &ready, &own, share = lines / producers] {
            ready.arrive_and_wait();
            own.start = wall_clock::now();
            const double cpu_start = thread_cpu_seconds();
            for (int line = 0; line < share; ++line) {
                log.write(line);
            }
            own.cpu_seconds = thread_cpu_seconds() - cpu_start;
            own.end = wall_clock::now();
        });
    }
    production all{wall_clock::time_point::max(), wall_clock::time_point::min()};
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const producer_times& own : times) {
        all.start = std::min(all.start, own.start);
        all.end = std::max(all.end, own.end);
        all.cpu_seconds += own.cpu_seconds;
    }
    return all;
}

// The time per iteration is the wall's; "producer_cpu" is the processor time that the producers
// themselves spend on a line.
void report(benchmark::State& state, int lines, double producer_cpu_seconds) {
    const auto written = static_cast<double>(state.iterations()) * lines;
    state.SetItemsProcessed(state.iterations() * lines);
    state.counters["producer_cpu"] = producer_cpu_seconds / written;
}

template <typename log_type>
void detached_sustained(benchmark::State& state) {
    const auto producers = static_cast<int>(state.range(0));
    constexpr int lines = 100000;
    double cpu_seconds = 0;
    for (auto _ : state) {
        const scratch_directory directory;
        log_type log(directory.path(), /*detached=*/true);
        const production done = produce(log, producers, lines);
        log.finish();
        state.SetIterationTime(seconds(wall_clock::now() - done.start).count());
        cpu_seconds += done.cpu_seconds;
    }
    report(state, lines, cpu_seconds);
}

template <typename log_type>
void detached_burst(benchmark::State& state) {
    const auto producers = static_cast<int>(state.range(0));
    const auto lines = static_cast<int>(state.range(1));
    double cpu_seconds = 0;
    for (auto _ : state) {
        const scratch_directory directory;
        log_type log(directory.path(), /*detached=*/true);
        produce(log, producers, lines); // a logger that has run for a while has memory of its own
        log.drain();
        const production done = produce(log, producers, lines);
        state.SetIterationTime(seconds(done.end - done.start).count());
        cpu_seconds += done.cpu_seconds;
    }
    report(state, lines, cpu_seconds);
}

using entry_function = void (*)(kiv::kivLogger*, int, const char*, const char*, ...);

// What a call costs at least.
[[gnu::noipa]] void compare_and_return(kiv::kivLogger* logger, int level, const char* /*module*/,
                                       const char* /*format*/, ...) {
    if (logger == nullptr || level > logger->level) {
        return;
    }
    std::abort();
}

[[gnu::noipa]] void never_called(const char* /*format*/, std::va_list /*arguments*/) {
    std::abort();
}

// The same with arguments to pass on: compilers save them before they compare.
[[gnu::noipa]] void compare_and_return_with_arguments(kiv::kivLogger* logger, int level,
                                                      const char* /*module*/, const char* format,
                                                      ...) {
    if (logger == nullptr || level > logger->level) {
        return;
    }
    std::va_list arguments;
    va_start(arguments, format);
    never_called(format, arguments);
    va_end(arguments);
}

void filtered_entry(benchmark::State& state, entry_function entry) {
    kiv::kivLogger logger;
    logger.level = 1;
    int number = 0;
    // Both functions are called the same way, through a pointer that the compiler cannot see
    // through.
    benchmark::DoNotOptimize(entry);
    for (auto _ : state) {
        entry(&logger, 2, "server", "request %d for %s", ++number, request_path);
    }
}

BENCHMARK_CAPTURE(filtered_entry, compare_and_return, compare_and_return);
BENCHMARK_CAPTURE(filtered_entry, compare_and_return_with_arguments,
                  compare_and_return_with_arguments);
BENCHMARK_CAPTURE(filtered_entry, kiv, kiv::AddLogEntry);
BENCHMARK(synchronous_entry<spdlog_log>)->Name("synchronous/spdlog");
BENCHMARK(synchronous_entry<kiv_log>)->Name("synchronous/kiv");
BENCHMARK(detached_sustained<spdlog_log>)
    ->Name("sustained/spdlog")
    ->ArgName("producers")
    ->Arg(1)
    ->Arg(2)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(detached_sustained<kiv_log>)
    ->Name("sustained/kiv")
    ->ArgName("producers")
    ->Arg(1)
    ->Arg(2)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(detached_burst<spdlog_log>)
    ->Name("burst/spdlog")
    ->ArgNames({"producers", "lines"})
    ->ArgsProduct({{1, 2}, {200, 2000, 8000}})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(detached_burst<kiv_log>)
    ->Name("burst/kiv")
    ->ArgNames({"producers", "lines"})
    ->ArgsProduct({{1, 2}, {200, 2000, 8000}})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
