// Many threads on one object of the library, as a busy host has them; for the sanitizers and for
// valgrind, which watch every access.

#include "KivFramework/KivKqueue.h"
#include "KivFramework/KivLogger.h"
#include "KivFramework/KivPerformanceMonitor.h"
#include "KivFramework/KivSocket.h"

#include "tests/support/fake_time.h"
#include "tests/support/loopback.h"
#include "tests/support/test_logger.h"
#include "tests/support/transfers.h"
#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <list>
#include <numeric>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace KivFramework;
using KivSocket::kivSocketStream;

// Threads that have all ended at the end of the scope.
class thread_group {
public:
    thread_group() = default;
    ~thread_group() {
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }
    thread_group(const thread_group&) = delete;
    thread_group& operator=(const thread_group&) = delete;

    template <typename body_type>
    void add(body_type body) {
        threads_.emplace_back(body);
    }

private:
    std::list<std::thread> threads_;
};

std::string numbered(int thread, int number) {
    return std::to_string(thread) + "." + std::to_string(number);
}

TEST(Logger, LosesNothingOf16ProducersWhileItRotatesAndIsDetachedOnAndOff) {
    constexpr int to_file = 4;
    constexpr int producers = 16;
    constexpr int lines_each = 100;
    const kiv_test::time_zone zone("UTC");
    const kiv_test::fake_time clock(1173258301, /*step=*/60);
    kiv_test::test_logger logger(to_file);
    KivLogger::SetLoggerRotation(logger.get(), 1);
    {
        std::atomic<int> running = producers;
        thread_group threads;
        for (int producer = 0; producer < producers; ++producer) {
            threads.add([&logger, &running, producer] {
                for (int number = 0; number < lines_each; ++number) {
                    KivLogger::AddLogEntry(logger.get(), 1, "m", "%s",
                                           numbered(producer, number).c_str());
                }
                --running;
            });
        }
        for (bool detached = true; running != 0; detached = !detached) {
            KivLogger::SetLoggerDetachedStatus(logger.get(), detached);
            std::this_thread::yield();
        }
    }
    KivLogger::SetLoggerDetachedStatus(logger.get(), true); // for what a stop left in the queue
    logger.destroy();

    std::multiset<std::string> expected;
    for (int producer = 0; producer < producers; ++producer) {
        for (int number = 0; number < lines_each; ++number) {
            expected.insert(" - [m] " + numbered(producer, number));
        }
    }
    constexpr std::size_t length_of_date = 19;
    std::multiset<std::string> written;
    std::size_t files = 0;
    for (const auto& file : std::filesystem::directory_iterator(logger.path(""))) {
        std::ifstream stream(file.path());
        for (std::string line; std::getline(stream, line);) {
            written.insert(line.substr(std::min(line.size(), length_of_date)));
        }
        ++files;
    }
    EXPECT_EQ(written, expected);
    EXPECT_GT(files, 10U) << "it hardly rotated";
}

TEST(kivSocketStream, CarriesEveryMessageOf4SendersInTheirOrderThroughOneLoop) {
    constexpr int senders = 4;
    constexpr int messages_each = 100;
    const kiv_test::local_connection sockets;
    const kiv_test::unique_fd queue(kqueue());
    kivSocketStream near;
    kivSocketStream far;
    near.socket = sockets.near.get();
    far.socket = sockets.far.get();
    near.SetBufferCheck(false);
    far.SetBufferCheck(false);
    near.RegisterKq(queue.get());
    far.RegisterKq(queue.get());

    std::vector<std::vector<int>> received(senders);
    {
        thread_group threads;
        for (int sender = 0; sender < senders; ++sender) {
            threads.add([&near, sender] {
                const std::string type(1, static_cast<char>('0' + sender));
                for (int number = 0; number < messages_each; ++number) {
                    near.AddMessage(type.c_str(), std::to_string(number).c_str());
                    near.UpdateHeartBeat();
                }
            });
        }
        for (int count = 0; count < senders * messages_each;) {
            struct kevent events[4];
            const timespec limit{10, 0};
            const int ready = kiv_test::uninterrupted(
                [&] { return kevent(queue.get(), nullptr, 0, events, 4, &limit); });
            ASSERT_GT(ready, 0);
            for (int i = 0; i < ready; ++i) {
                auto& stream = *static_cast<kivSocketStream*>(events[i].udata);
                if (events[i].filter == EVFILT_WRITE) {
                    stream.Write();
                    continue;
                }
                stream.Read();
                while (char* const message = stream.GetNextMessage()) {
                    received.at(static_cast<std::size_t>(message[0] - '0'))
                        .push_back(std::stoi(message + 1));
                    KivSocket::destroyEncodedMessage(message);
                    ++count;
                }
            }
        }
    }
    std::vector<int> in_order(messages_each);
    std::iota(in_order.begin(), in_order.end(), 0);
    EXPECT_EQ(received, std::vector<std::vector<int>>(senders, in_order));
}

TEST(StartPerformanceMonitor, StartsOneSamplerFor16ThreadsAtOnce) {
    constexpr int readers = 16;
    const auto thread_count = [] {
        const std::filesystem::directory_iterator tasks("/proc/self/task");
        return std::distance(begin(tasks), end(tasks));
    };
    const auto before = thread_count();
    {
        thread_group threads;
        for (int reader = 0; reader < readers; ++reader) {
            threads.add([] {
                EXPECT_GE(KivPerformanceMonitor::GetCpuUsage(0), 0.0);
                EXPECT_GT(KivPerformanceMonitor::GetRamAmount(), 0U);
                EXPECT_FALSE(KivPerformanceMonitor::GetFormattedRamUsage().empty());
            });
        }
    }
    EXPECT_TRUE(kiv_test::wait_until([&] { return thread_count() == before + 1; }));
    KivPerformanceMonitor::StopPerformanceMonitor();
}

} // namespace
