// The logger beside spdlog, log4cplus and glog: the same line, made from a number and a text, to a
// file, each with date, time and the name of its logger or program in front.
//
// Filtered: the line's level is not wanted. The library's function is called beside two of another
// library that only compare; the peers compare in the caller's code, by their macros or inline
// functions.
//
// Synchronous: all flush every line; the limit is one write call with a line that is made already.
//
// Detached: the library's writer thread beside spdlog's asynchronous logger with its default queue
// (8192, producers wait when it is full) and log4cplus's asynchronous appender with a queue of the
// same length, each with one worker, and beside glog with its buffer, as it has no thread: there
// the producers write the buffer themselves. "sustained" lasts until the last line is in the file,
// "burst" is what the producers alone pay. Nobody flushes before that but for its own reasons.

#include "KivFramework/KivLogger.h"

#include "benchmarks/compare_and_return.h"
#include "benchmarks/run_benchmarks.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <latch>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>
#ifdef KIV_HAVE_GLOG
#include <glog/logging.h>
#endif
#ifdef KIV_HAVE_LOG4CPLUS
#include <log4cplus/asyncappender.h>
#include <log4cplus/fileappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#endif
#ifdef KIV_HAVE_SPDLOG
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

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

#ifdef KIV_HAVE_SPDLOG
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
#endif

#ifdef KIV_HAVE_LOG4CPLUS
class log4cplus_log {
public:
    log4cplus_log(const std::string& directory, bool detached)
        : file_(new counting_appender(directory + "/default.log", /*flush_lines=*/!detached)) {
        file_->setLayout(std::make_unique<log4cplus::PatternLayout>(
            LOG4CPLUS_TEXT("%D{%m/%d/%Y %H:%M:%S} - [%c] %m%n")));
        logger_.setAdditivity(false);
        logger_.setLogLevel(log4cplus::INFO_LOG_LEVEL);
        if (detached) {
            constexpr unsigned queue_length = 8192;
            logger_.addAppender(
                log4cplus::SharedAppenderPtr(new log4cplus::AsyncAppender(sink_, queue_length)));
        } else {
            logger_.addAppender(sink_);
        }
    }
    ~log4cplus_log() { finish(); }
    log4cplus_log(const log4cplus_log&) = delete;
    log4cplus_log& operator=(const log4cplus_log&) = delete;

    void write(int number) {
        ++given_;
        LOG4CPLUS_INFO_FMT(logger_, "request %d for %s", number, request_path);
    }

    // Its queue does not tell how long it is.
    void drain() {
        while (file_->taken() != given_) {
            std::this_thread::yield();
        }
    }

    void finish() {
        if (open_) {
            drain();
            logger_.removeAllAppenders();
            sink_->close();
            open_ = false;
        }
    }

private:
    class counting_appender : public log4cplus::FileAppender {
    public:
        counting_appender(const std::string& path, bool flush_lines)
            : FileAppender(path, std::ios_base::trunc, flush_lines) {}

        long taken() const { return taken_; }

    protected:
        void append(const log4cplus::spi::InternalLoggingEvent& event) override {
            FileAppender::append(event);
            taken_.store(taken_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
        }

    private:
        std::atomic<long> taken_ = 0;
    };

    counting_appender* file_; // owned by sink_
    log4cplus::SharedAppenderPtr sink_{file_};
    log4cplus::Logger logger_ = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("server"));
    std::atomic<long> given_ = 0;
    bool open_ = true;
};
#endif

#ifdef KIV_HAVE_GLOG
// There is one log of its kind in a program.
class glog_log {
public:
    glog_log(const std::string& directory, bool detached) {
        constexpr int default_seconds = 30;
        FLAGS_logbuflevel = detached ? google::GLOG_INFO : -1; // -1: no level is buffered
        FLAGS_logbufsecs = detached ? default_seconds : 0;
        FLAGS_timestamp_in_logfile_name = false;
        google::SetLogDestination(google::GLOG_INFO, (directory + "/default.log").c_str());
        google::SetLogSymlink(google::GLOG_INFO, "");
    }
    ~glog_log() { finish(); }
    glog_log(const glog_log&) = delete;
    glog_log& operator=(const glog_log&) = delete;

    void write(int number) { LOG(INFO) << "request " << number << " for " << request_path; }

    void drain() {}

    void finish() { google::FlushLogFiles(google::GLOG_INFO); }
};
#endif

// One write for each line: what the system asks for it.
class write_log {
public:
    write_log(const std::string& directory, bool /*detached*/)
        : file_(::open((directory + "/default.log").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600)) {
    }
    ~write_log() { ::close(file_); }
    write_log(const write_log&) = delete;
    write_log& operator=(const write_log&) = delete;

    void write(int /*number*/) {
        constexpr std::string_view line =
            "11/21/2026 23:25:17 - [server] request 123456 for /var/lib/service/requests\n";
        benchmark::DoNotOptimize(::write(file_, line.data(), line.size()));
    }

private:
    int file_;
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

#ifdef KIV_HAVE_SPDLOG
void filtered_spdlog(benchmark::State& state) {
    spdlog::logger logger("server");
    logger.set_level(spdlog::level::info);
    int number = 0;
    for (auto _ : state) {
        logger.debug("request {} for {}", ++number, request_path);
    }
}
BENCHMARK(filtered_spdlog)->Name("filtered/spdlog");
#endif

#ifdef KIV_HAVE_LOG4CPLUS
void filtered_log4cplus(benchmark::State& state) {
    log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("server"));
    logger.setLogLevel(log4cplus::INFO_LOG_LEVEL);
    int number = 0;
    for (auto _ : state) {
        LOG4CPLUS_DEBUG_FMT(logger, "request %d for %s", ++number, request_path);
    }
}
BENCHMARK(filtered_log4cplus)->Name("filtered/log4cplus");
#endif

#ifdef KIV_HAVE_GLOG
void filtered_glog(benchmark::State& state) {
    int number = 0;
    for (auto _ : state) {
        VLOG(1) << "request " << ++number << " for " << request_path;
    }
}
BENCHMARK(filtered_glog)->Name("filtered/glog");
#endif

template <typename log_type>
void measure(const std::string& who) {
    benchmark::RegisterBenchmark(("synchronous/" + who).c_str(), synchronous_entry<log_type>);
    benchmark::RegisterBenchmark(("sustained/" + who).c_str(), detached_sustained<log_type>)
        ->ArgName("producers")
        ->Arg(1)
        ->Arg(2)
        ->UseManualTime();
    benchmark::RegisterBenchmark(("burst/" + who).c_str(), detached_burst<log_type>)
        ->ArgNames({"producers", "lines"})
        ->ArgsProduct({{1, 2}, {200, 2000, 8000}})
        ->UseManualTime();
}

BENCHMARK_CAPTURE(filtered_entry, compare, compare_and_return)->Name("filtered/compare");
BENCHMARK_CAPTURE(filtered_entry, compare_with_arguments, compare_and_return_with_arguments)
    ->Name("filtered/compare_with_arguments");
BENCHMARK_CAPTURE(filtered_entry, kiv, kiv::AddLogEntry)->Name("filtered/kiv");
BENCHMARK(synchronous_entry<write_log>)->Name("synchronous/write");

} // namespace

int main(int argc, char** argv) {
#ifdef KIV_HAVE_LOG4CPLUS
    const log4cplus::Initializer log4cplus_frame;
#endif
#ifdef KIV_HAVE_GLOG
    google::InitGoogleLogging(argv[0]);
#endif
    measure<kiv_log>("kiv");
#ifdef KIV_HAVE_SPDLOG
    measure<spdlog_log>("spdlog");
#endif
#ifdef KIV_HAVE_LOG4CPLUS
    measure<log4cplus_log>("log4cplus");
#endif
#ifdef KIV_HAVE_GLOG
    measure<glog_log>("glog");
#endif
    return run_benchmarks(argc, argv);
}
