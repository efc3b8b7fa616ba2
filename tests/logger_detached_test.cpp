#include "KivFramework/KivLogger.h"
#include "KivFramework/KivProcesses.h"

#include "tests/support/fake_system_log.h"
#include "tests/support/fake_time.h"
#include "tests/support/no_new_threads.h"
#include "tests/support/pipe_ends.h"
#include "tests/support/test_logger.h"
#include "tests/support/transfers.h"
#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <list>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

namespace {

using namespace KivFramework::KivLogger;
using kiv_test::fake_system_log;
using kiv_test::fake_time;
using kiv_test::no_new_threads;
using kiv_test::read_file;
using kiv_test::stdout_redirection;
using kiv_test::test_logger;
using kiv_test::time_zone;
using kiv_test::wait_until;
using kiv_test::without_dates;

constexpr int to_stdout = 2;
constexpr int to_file = 4;
constexpr int to_system_log = 8;

void add(test_logger& logger, int number) {
    AddLogEntry(logger.get(), 1, "m", "%d", number);
}

std::string lines(int first, int last) {
    std::string text;
    for (int number = first; number <= last; ++number) {
        text += " - [m] " + std::to_string(number) + "\n";
    }
    return text;
}

std::string written(test_logger& logger) {
    std::fflush(logger.record().file);
    return without_dates(read_file(logger.path()));
}

std::size_t waiting(test_logger& logger) {
    pthread_mutex_lock(logger.record().queue_lock);
    const std::size_t count = logger.record().queue.size();
    pthread_mutex_unlock(logger.record().queue_lock);
    return count;
}

std::size_t thread_count() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

// A thread that tells whether it sleeps in the kernel, and whether it is done.
class observed_thread {
public:
    template <typename work_type>
    explicit observed_thread(work_type work)
        : thread_([this, work] {
              id_ = ::gettid();
              work();
              done_ = true;
          }) {}
    ~observed_thread() { thread_.join(); }
    observed_thread(const observed_thread&) = delete;
    observed_thread& operator=(const observed_thread&) = delete;

    bool done() const { return done_; }

    bool wait_until_asleep_or_done() const {
        return wait_until([this] { return done_ || asleep(); });
    }

private:
    bool asleep() const {
        std::ifstream status("/proc/self/task/" + std::to_string(id_) + "/stat");
        std::string text;
        std::getline(status, text);
        const std::size_t name_end = text.rfind(')');
        return name_end != std::string::npos && text.compare(name_end, 3, ") S") == 0;
    }

    std::atomic<int> id_ = 0;
    std::atomic<bool> done_ = false;
    std::thread thread_; // last, so that the others are there when it runs
};

// Holds the writer at each of its lines, for loggers whose target is the system log.
class gate {
public:
    gate() {
        log_.on_entry([this](const fake_system_log::entry&) {
            std::unique_lock guard(lock_);
            ++arrived_;
            changed_.notify_all();
            changed_.wait(guard, [this] { return passed_ < permitted_; });
            ++passed_;
        });
    }

    void wait_for_line(int number) {
        std::unique_lock guard(lock_);
        changed_.wait(guard, [this, number] { return arrived_ >= number; });
    }

    void let_pass(int lines) {
        const std::lock_guard guard(lock_);
        permitted_ += lines;
        changed_.notify_all();
    }

    std::size_t passed() const { return log_.entries().size(); }

private:
    fake_system_log log_;
    std::mutex lock_;
    std::condition_variable changed_;
    int arrived_ = 0;
    int permitted_ = 0;
    int passed_ = 0;
};

TEST(SetLoggerDetachedStatus, StartsOneThreadHoweverOftenItIsAsked) {
    test_logger logger(to_file);
    const std::size_t before = thread_count();
    SetLoggerDetachedStatus(logger.get(), true);
    const KivFramework::kivThreadObj* const writer = logger.record().writer_thread;
    SetLoggerDetachedStatus(logger.get(), true);
    EXPECT_EQ(logger.record().writer_thread, writer);
    EXPECT_EQ(thread_count(), before + 1);
    EXPECT_NE(logger.record().detached, 0);
}

TEST(SetLoggerDetachedStatus, DoesNothingWhenASynchronousLoggerIsAskedToStop) {
    test_logger logger(to_file);
    SetLoggerDetachedStatus(logger.get(), false);
    EXPECT_EQ(logger.record().detached, 0);
    EXPECT_EQ(logger.record().stop_writer, 0);
    add(logger, 1);
    EXPECT_EQ(written(logger), lines(1, 1));
}

TEST(SetLoggerDetachedStatus, DoesNothingWithARecordThatIsNotCreated) {
    kivLogger logger;
    SetLoggerDetachedStatus(&logger, true);
    SetLoggerDetachedStatus(&logger, false);
    EXPECT_EQ(logger.detached, 0);
}

TEST(SetLoggerDetachedStatus, EndsTheThreadWhenItIsTurnedOff) {
    test_logger logger(to_file);
    const std::size_t before = thread_count();
    SetLoggerDetachedStatus(logger.get(), true);
    SetLoggerDetachedStatus(logger.get(), false);
    EXPECT_TRUE(wait_until([before] { return thread_count() == before; }));
    EXPECT_EQ(logger.record().detached, 0);
    EXPECT_EQ(logger.record().writer_thread, nullptr);
    add(logger, 1);
    EXPECT_EQ(written(logger), lines(1, 1));
}

TEST(SetLoggerDetachedStatus, StaysSynchronousWhenNoThreadCanBeStarted) {
    test_logger logger(to_file);
    {
        const no_new_threads none;
        SetLoggerDetachedStatus(logger.get(), true);
    }
    EXPECT_EQ(logger.record().detached, 0);
    EXPECT_EQ(logger.record().writer_thread, nullptr);
    add(logger, 1);
    EXPECT_EQ(written(logger), lines(1, 1));
    FlushDetachedThread(logger.get());
    SetLoggerDetachedStatus(logger.get(), true); // later, when one can
    EXPECT_NE(logger.record().detached, 0);
}

TEST(SetLoggerDetachedStatus, LeavesUnwrittenLinesInTheQueueUntilAWriterRunsAgain) {
    gate writer;
    test_logger logger(to_system_log | to_file);
    SetLoggerDetachedStatus(logger.get(), true);
    add(logger, 1);
    writer.wait_for_line(1);
    add(logger, 2);
    std::atomic_ref<int>(logger.record().stop_writer).store(1);
    writer.let_pass(1);
    SetLoggerDetachedStatus(logger.get(), false);
    EXPECT_EQ(waiting(logger), 1U);
    EXPECT_EQ(written(logger), lines(1, 1));

    writer.let_pass(2);
    add(logger, 3);
    EXPECT_EQ(written(logger), lines(1, 1) + lines(3, 3));
    EXPECT_EQ(waiting(logger), 1U);

    SetLoggerDetachedStatus(logger.get(), true);
    FlushDetachedThread(logger.get());
    EXPECT_EQ(waiting(logger), 0U);
    EXPECT_EQ(written(logger), lines(1, 1) + lines(3, 3) + lines(2, 2));
}

TEST(SetLoggerDetachedStatus, KeepsLinesOfADestroyedSynchronousLoggerInItsQueue) {
    test_logger logger(to_file);
    logger.record().queue.emplace_back("left");
    logger.destroy();
    EXPECT_EQ(logger.record().queue.size(), 1U);
    EXPECT_EQ(read_file(logger.path()), "");
}

TEST(SetLoggerDetachedStatus, MayBeTurnedOffByTwoThreadsAtOnce) {
    test_logger logger(to_file);
    for (int round = 0; round < 50; ++round) {
        SetLoggerDetachedStatus(logger.get(), true);
        std::thread other([&logger] { SetLoggerDetachedStatus(logger.get(), false); });
        SetLoggerDetachedStatus(logger.get(), false);
        other.join();
    }
    EXPECT_EQ(logger.record().detached, 0);
}

TEST(AddLogEntry, QueuesTheFinishedLineWithoutALineBreak) {
    gate writer;
    const time_zone zone("UTC");
    const fake_time clock(1173258301);
    test_logger logger(to_system_log);
    SetLoggerDetachedStatus(logger.get(), true);
    add(logger, 1);
    writer.wait_for_line(1);
    add(logger, 2);
    add(logger, 3);
    pthread_mutex_lock(logger.record().queue_lock);
    EXPECT_EQ(logger.record().queue, (std::list<std::string>{"03/07/2007 09:05:01 - [m] 2",
                                                             "03/07/2007 09:05:01 - [m] 3"}));
    pthread_mutex_unlock(logger.record().queue_lock);
    writer.let_pass(3);
}

TEST(AddLogEntry, WritesDetachedLinesInTheirOrder) {
    test_logger logger(to_file);
    SetLoggerDetachedStatus(logger.get(), true);
    for (int number = 1; number <= 5000; ++number) {
        add(logger, number);
    }
    logger.destroy();
    EXPECT_EQ(without_dates(read_file(logger.path())), lines(1, 5000));
}

TEST(AddLogEntry, KeepsLinesOfEveryLengthApartWhenTheirStorageIsUsedAgain) {
    test_logger logger(to_file);
    SetLoggerDetachedStatus(logger.get(), true);
    std::string expected;
    for (std::size_t i = 0; i < 2000; ++i) {
        const std::string message((i * 997) % 4096, static_cast<char>('a' + i % 26));
        AddLogEntry(logger.get(), 1, "m", "%s", message.c_str());
        expected += " - [m] " + message.substr(0, 4094) + "\n";
    }
    logger.destroy();
    EXPECT_EQ(without_dates(read_file(logger.path())), expected);
}

TEST(AddLogEntry, BlocksWith256LinesWaitingUntilAPassEnds) {
    gate writer;
    test_logger logger(to_system_log);
    SetLoggerDetachedStatus(logger.get(), true);
    add(logger, 0);
    writer.wait_for_line(1); // the writer has taken the first line, all others wait
    std::atomic<int> added = 0;
    {
        const observed_thread producer([&logger, &added] {
            while (added < 600) {
                add(logger, added + 1);
                ++added;
            }
        });
        EXPECT_TRUE(wait_until([&logger] { return waiting(logger) >= 256; }));
        EXPECT_TRUE(producer.wait_until_asleep_or_done());
        EXPECT_EQ(waiting(logger), 256U);
        EXPECT_EQ(added, 256);
        writer.let_pass(1); // ends the pass
        EXPECT_TRUE(wait_until([&added] { return added > 256; }));
        writer.let_pass(600);
    }
    logger.destroy();
    EXPECT_EQ(writer.passed(), 601U);
}

TEST(AddLogEntry, DoesNotWaitForAWriterThatHasEnded) {
    test_logger logger(to_file);
    SetLoggerDetachedStatus(logger.get(), true);
    std::atomic_ref<int>(logger.record().stop_writer).store(1);
    EXPECT_TRUE(wait_until([&logger] {
        return KivFramework::KivProcesses::CheckJoinableThread(logger.record().writer_thread) != 0;
    }));
    for (int number = 1; number <= 1000; ++number) {
        add(logger, number);
    }
    FlushDetachedThread(logger.get());
    EXPECT_EQ(waiting(logger), 1000U);
    SetLoggerDetachedStatus(logger.get(), false);
    SetLoggerDetachedStatus(logger.get(), true);
    logger.destroy();
    EXPECT_EQ(without_dates(read_file(logger.path())), lines(1, 1000));
}

TEST(AddLogEntry, GoesOnWhenTheWriterEndsWhileItWaits) {
    gate writer;
    test_logger logger(to_system_log);
    SetLoggerDetachedStatus(logger.get(), true);
    add(logger, 0);
    writer.wait_for_line(1);
    {
        std::list<observed_thread> producers;
        for (int producer = 0; producer < 3; ++producer) {
            producers.emplace_back([&logger] {
                for (int number = 0; number < 300; ++number) {
                    add(logger, number);
                }
            });
        }
        EXPECT_TRUE(wait_until([&logger] { return waiting(logger) >= 256; }));
        for (const observed_thread& producer : producers) {
            EXPECT_TRUE(producer.wait_until_asleep_or_done());
        }
        std::atomic_ref<int>(logger.record().stop_writer).store(1);
        writer.let_pass(1);
    }
    EXPECT_EQ(waiting(logger), 900U);
    SetLoggerDetachedStatus(logger.get(), false);
}

TEST(FlushDetachedThread, ReturnsAtOnceWhenTheLoggerIsSynchronous) {
    test_logger logger(to_file);
    FlushDetachedThread(logger.get());
    kivLogger never_created;
    FlushDetachedThread(&never_created);
}

TEST(FlushDetachedThread, WaitsUntilAllLinesBeforeItAreWritten) {
    test_logger logger(to_file);
    SetLoggerDetachedStatus(logger.get(), true);
    for (int number = 1; number <= 200; ++number) {
        add(logger, number);
        if (number % 10 == 0) {
            FlushDetachedThread(logger.get());
            EXPECT_EQ(written(logger), lines(1, number));
        }
    }
}

TEST(FlushDetachedThread, IsNotSatisfiedByAPassThatBeganBefore) {
    gate writer;
    test_logger logger(to_system_log);
    SetLoggerDetachedStatus(logger.get(), true);
    add(logger, 1);
    writer.wait_for_line(1);
    add(logger, 2);
    {
        const observed_thread flush([&logger] { FlushDetachedThread(logger.get()); });
        EXPECT_TRUE(flush.wait_until_asleep_or_done());
        writer.let_pass(1);
        writer.wait_for_line(2); // the pass of line 1 has ended
        EXPECT_TRUE(flush.wait_until_asleep_or_done());
        EXPECT_FALSE(flush.done());
        writer.let_pass(1);
    }
}

TEST(FlushDetachedThread, EndsForEveryWaiterWithTheSamePass) {
    gate writer;
    test_logger logger(to_system_log);
    SetLoggerDetachedStatus(logger.get(), true);
    add(logger, 1);
    writer.wait_for_line(1);
    add(logger, 2);
    {
        std::list<observed_thread> waiters;
        for (int waiter = 0; waiter < 5; ++waiter) {
            waiters.emplace_back([&logger] { FlushDetachedThread(logger.get()); });
        }
        for (const observed_thread& waiter : waiters) {
            EXPECT_TRUE(waiter.wait_until_asleep_or_done());
        }
        writer.let_pass(1);
        writer.wait_for_line(2);
        add(logger, 3); // holds the writer after the pass that is waited for
        writer.let_pass(1);
        for (const observed_thread& waiter : waiters) {
            EXPECT_TRUE(wait_until([&waiter] { return waiter.done(); }));
        }
        writer.let_pass(1);
    }
}

TEST(FlushDetachedThread, LeavesTheFilesOwnBufferingAlone) {
    test_logger logger(to_file);
    SetLoggerDetachedStatus(logger.get(), true);
    add(logger, 1);
    FlushDetachedThread(logger.get());
    EXPECT_EQ(read_file(logger.path()), "");
    EXPECT_EQ(written(logger), lines(1, 1));
}

TEST(detached_logger_thread, FlushesStandardOutputAfterAPass) {
    const time_zone zone("UTC");
    const fake_time clock(1173258301);
    test_logger logger(to_stdout);
    const stdout_redirection redirected;
    SetLoggerDetachedStatus(logger.get(), true);
    add(logger, 1);
    FlushDetachedThread(logger.get());
    EXPECT_EQ(redirected.bytes(), "03/07/2007 09:05:01 - [m] 1");
}

std::atomic<int> signals_seen = 0;

void count_signal(int /*number*/) {
    ++signals_seen;
}

// Interrupts what `thread` waits for, again and again, unless it has ended.
void pester(pthread_t thread, const std::atomic<bool>& ended) {
    constexpr int signals = 20;
    for (int i = 0; i < signals && !ended; ++i) {
        const int seen = signals_seen;
        ::pthread_kill(thread, SIGUSR1);
        EXPECT_TRUE(wait_until([&] { return signals_seen != seen || ended; }));
    }
}

// A full pipe in the place of standard output.
class full_standard_output {
public:
    full_standard_output() : pipe_(kiv_test::make_pipe()) {
        ::fcntl(pipe_.write.get(), F_SETFL, O_NONBLOCK);
        while (kiv_test::uninterrupted([&] { return ::write(pipe_.write.get(), "#", 1); }) == 1) {
            ++filling_;
        }
        ::fcntl(pipe_.write.get(), F_SETFL, 0);
        ::dup2(pipe_.write.get(), STDOUT_FILENO);
    }

    // The next bytes behind those that it was filled with; fewer when no more come.
    std::string bytes(std::size_t size) {
        size += filling_;
        std::string text;
        pollfd ready{pipe_.read.get(), POLLIN, 0};
        constexpr int limit_ms = 10000;
        while (text.size() < size &&
               kiv_test::uninterrupted([&] { return ::poll(&ready, 1, limit_ms); }) == 1) {
            std::array<char, PIPE_BUF> next{};
            const ssize_t count =
                ::read(ready.fd, next.data(), std::min(next.size(), size - text.size()));
            text.append(next.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        }
        text.erase(0, std::exchange(filling_, 0));
        return text;
    }

private:
    const stdout_redirection restored_; // puts the real one back
    kiv_test::pipe_ends pipe_;
    std::size_t filling_ = 0;
};

TEST(AddLogEntry, ReachesAFullStandardOutputWholeAndOnceWhateverSignalsArrive) {
    const std::string module(200000, 'm'); // more than a pipe holds
    constexpr std::size_t first = 50000;
    const time_zone zone("UTC");
    const fake_time clock(1173258301);
    struct sigaction action {};
    struct sigaction old {};
    action.sa_handler = count_signal; // without SA_RESTART
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &old), 0);
    for (const bool detached : {false, true}) {
        SCOPED_TRACE(detached);
        const std::string expected =
            "03/07/2007 09:05:01 - [" + module + "] one03/07/2007 09:05:01 - [m] two";
        std::string text;
        {
            test_logger logger(to_stdout);
            full_standard_output output;
            SetLoggerDetachedStatus(logger.get(), detached);
            std::atomic<bool> ended = false;
            std::thread producer([&] {
                AddLogEntry(logger.get(), 1, module.c_str(), "one");
                AddLogEntry(logger.get(), 1, "m", "two");
                ended = !detached;
            });
            const pthread_t writer =
                detached ? logger.record().writer_thread->thread : producer.native_handle();
            pester(writer, ended);
            text = output.bytes(first);
            pester(writer, ended);
            text += output.bytes(expected.size() - first);
            producer.join();
        }
        EXPECT_TRUE(text == expected) << text.size() << " bytes of " << expected.size();
    }
    ::sigaction(SIGUSR1, &old, nullptr);
}

TEST(detached_logger_thread, SignalsTheEndOfEveryPassToHostsToo) {
    test_logger logger(to_file);
    SetLoggerDetachedStatus(logger.get(), true);
    // An idle writer makes an empty pass now and then, and ends it like any other.
    pthread_mutex_lock(logger.record().queue_lock);
    KivFramework::KivProcesses::WaitConditional(logger.record().queue_signal);
    pthread_mutex_unlock(logger.record().queue_lock);
}

TEST(detached_logger_thread, NeedsNeitherLockWhileItIsIdle) {
    test_logger logger(to_file);
    SetLoggerDetachedStatus(logger.get(), true);
    std::string line = "written by the host itself";
    DumpLogString(logger.get(), line, 1, /*flush=*/true);
    EXPECT_EQ(read_file(logger.path()), "written by the host itself\n");
}

TEST(DestroyLogger, WritesEverythingAppendedBefore) {
    for (int round = 0; round < 100; ++round) {
        test_logger logger(to_file);
        SetLoggerDetachedStatus(logger.get(), true);
        for (int number = 1; number <= round; ++number) {
            add(logger, number);
        }
        logger.destroy();
        ASSERT_EQ(without_dates(read_file(logger.path())), lines(1, round));
        EXPECT_TRUE(logger.record().queue.empty());
    }
}

// Every line of all files in the log directory, in no particular order.
std::multiset<std::string> lines_of_all_files(const test_logger& logger) {
    std::multiset<std::string> all;
    for (const auto& file : std::filesystem::directory_iterator(logger.path(""))) {
        std::ifstream stream(file.path());
        for (std::string line; std::getline(stream, line);) {
            all.insert(line.substr(std::min<std::size_t>(line.size(), 19)));
        }
    }
    return all;
}

// What `threads` threads log when each numbers its lines.
std::multiset<std::string> lines_of_producers(int threads, int lines_each) {
    std::multiset<std::string> all;
    for (int producer = 0; producer < threads; ++producer) {
        for (int line = 0; line < lines_each; ++line) {
            all.insert(" - [m] " + std::to_string(producer) + "." + std::to_string(line));
        }
    }
    return all;
}

std::atomic<int> rotations;

// Lets 8 threads log while the hour changes every few lines.
void log_through_rotations(bool detached) {
    constexpr int threads = 8;
    constexpr int lines_each = 400;
    const time_zone zone("UTC");
    const fake_time clock(1173258301, /*step=*/600);
    test_logger logger(to_file);
    rotations = 0;
    const auto count_rotation = [](const char*) { ++rotations; };
    SetLoggerRotation(logger.get(), 1);
    SetLoggerRotationCallback(
        logger.get(), reinterpret_cast<void*>(static_cast<void (*)(const char*)>(count_rotation)));
    SetLoggerDetachedStatus(logger.get(), detached);

    std::list<std::thread> producers;
    for (int producer = 0; producer < threads; ++producer) {
        producers.emplace_back([&logger, producer] {
            for (int line = 0; line < lines_each; ++line) {
                AddLogEntry(logger.get(), 1, "m", "%d.%d", producer, line);
            }
        });
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    logger.destroy();
    EXPECT_EQ(lines_of_all_files(logger), lines_of_producers(threads, lines_each));
    EXPECT_GT(rotations, 100);
}

TEST(CheckLogRotation, LosesAndTearsNoLineOfManyThreads) {
    log_through_rotations(/*detached=*/false);
}

TEST(CheckLogRotation, LosesAndTearsNoLineOfTheWriter) {
    log_through_rotations(/*detached=*/true);
}

TEST(AddLogEntry, LosesNoLineWhileDetachedModeIsSwitchedOnAndOff) {
    constexpr int threads = 4;
    constexpr int lines_each = 2000;
    test_logger logger(to_file);
    std::list<std::thread> producers;
    std::atomic<int> running = threads;
    for (int producer = 0; producer < threads; ++producer) {
        producers.emplace_back([&logger, &running, producer] {
            for (int line = 0; line < lines_each; ++line) {
                AddLogEntry(logger.get(), 1, "m", "%d.%d", producer, line);
            }
            --running;
        });
    }
    bool detached = false;
    while (running != 0) {
        detached = !detached;
        SetLoggerDetachedStatus(logger.get(), detached);
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    SetLoggerDetachedStatus(logger.get(), true); // for the lines that a stop left in the queue
    logger.destroy();
    EXPECT_EQ(lines_of_all_files(logger), lines_of_producers(threads, lines_each));
}

} // namespace
