// What the operations leave behind when memory runs out at any point of them.

#include "KivFramework/KivFramework.h"

#include "tests/support/child_process.h"
#include "tests/support/default_log.h"
#include "tests/support/fake_time.h"
#include "tests/support/loopback.h"
#include "tests/support/temp_directory.h"
#include "tests/support/test_logger.h"
#include "tests/support/transfers.h"
#include "tests/support/wait_until.h"
#include "tests/torture/fault_layer.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <list>
#include <new>
#include <string>
#include <thread>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace KivFramework;
using namespace KivFramework::KivProcesses;
using kiv_test::fallible;
using kiv_test::test_logger;
using kiv_test::unique_fd;

constexpr int to_file = 4;

// Calls `body` with its first allocation failing, then its second one, and so on until none does;
// `check` is told after each of them whether the body threw.
template <typename body_type, typename check_type>
void fail_each_allocation(const body_type& body, const check_type& check) {
    long points = 0;
    for (long number = 1;; ++number) {
        bool threw = false;
        kiv_test::arm({fallible::memory, ENOMEM, number, /*for_ever=*/false});
        try {
            body();
        } catch (const std::bad_alloc&) {
            threw = true;
        }
        if (kiv_test::disarm() == 0) {
            break;
        }
        check(threw);
        // Nothing is noted before, as that would count among the blocks.
        if (testing::Test::HasFailure()) {
            ADD_FAILURE() << "with allocation " << number << " failing";
            return;
        }
        ++points;
    }
    EXPECT_GT(points, 0) << "nothing was allocated";
}

// Lets `body` run without any memory.
template <typename body_type>
void without_memory(const body_type& body) {
    kiv_test::arm({fallible::memory, ENOMEM, 1, /*for_ever=*/true});
    body();
    kiv_test::disarm();
}

TEST(InitializeLibrary, KeepsTheSeedOfAnEarlierStartUsableWhenMemoryRunsOut) {
    InitializeLibrary(nullptr);
    fail_each_allocation([] { InitializeLibrary(nullptr); },
                         [](bool) {
                             const int seed = GetProgressiveSeed();
                             EXPECT_EQ(GetProgressiveSeed(), seed + 1);
                         });
    ShutdownLibrary();
}

TEST(DeleteUniqueLock, NeedsNoMemory) {
    const std::string name = "kiv-scarce-memory-test-" + std::to_string(::getpid()) + ".lock";
    const int lock = CreateUniqueLock(name.c_str());
    ASSERT_GE(lock, 0);
    without_memory([&] { EXPECT_TRUE(DeleteUniqueLock(lock, name.c_str())); });
    EXPECT_EQ(::access(("/tmp/" + name).c_str(), F_OK), -1);
}

TEST(CreateRWLocker, KeepsNothingWhenMemoryRunsOut) {
    _kivRWLocker* locker = nullptr;
    const long before = kiv_test::live_blocks();
    fail_each_allocation([&locker] { locker = CreateRWLocker(false); },
                         [before](bool threw) {
                             EXPECT_TRUE(threw);
                             EXPECT_EQ(kiv_test::live_blocks(), before);
                         });
    DestroyRWLocker(locker);
    delete locker;
}

TEST(SpawnThread, GivesNoThreadThatCouldNotEndWhenMemoryRunsOut) {
    fail_each_allocation(
        [] {
            kivThreadObj* const thread = SpawnThread(
                [](void* block) -> void* {
                    EndThread(7, block);
                    return nullptr;
                },
                nullptr);
            if (thread != nullptr) {
                EXPECT_EQ(JoinThread(thread), 7);
            }
        },
        [](bool) {});
}

TEST(CreateLogger, LeavesARecordThatIsNotCreatedWhenMemoryRunsOut) {
    const kiv_test::temp_directory directory;
    kivLogger logger;
    KivLogger::SetLoggerBasePath(&logger, directory.path());
    KivLogger::CreateLogger(&logger, 1, to_file); // so that the record holds what it will hold
    KivLogger::DestroyLogger(&logger);
    const long before = kiv_test::live_blocks();
    fail_each_allocation([&logger] { KivLogger::CreateLogger(&logger, 1, to_file); },
                         [&logger, before](bool threw) {
                             if (threw) {
                                 EXPECT_EQ(logger.lock, nullptr);
                                 EXPECT_EQ(logger.file, nullptr);
                                 KivLogger::AddLogEntry(&logger, 1, "m", "to nowhere");
                                 KivLogger::SetLoggerDetachedStatus(&logger, true);
                             }
                             KivLogger::DestroyLogger(&logger);
                             EXPECT_LE(kiv_test::live_blocks(), before);
                         });
    KivLogger::AddLogEntry(&logger, 1, "m", "at last");
    KivLogger::DestroyLogger(&logger);
    EXPECT_EQ(kiv_test::without_dates(kiv_test::read_file(directory.file("default.log"))),
              " - [m] at last\n");
}

TEST(CheckLogRotation, IsPutOffToTheNextLineWhenMemoryRunsOut) {
    const kiv_test::time_zone zone("UTC");
    kiv_test::fake_time clock(1173258301);
    test_logger logger(to_file);
    KivLogger::SetLoggerRotation(logger.get(), 1);
    KivLogger::AddLogEntry(logger.get(), 1, "m", "in the first hour");
    clock.set(1173258301 + 3600);
    without_memory([&logger] { KivLogger::AddLogEntry(logger.get(), 1, "m", "without memory"); });
    KivLogger::AddLogEntry(logger.get(), 1, "m", "with memory");
    EXPECT_EQ(
        kiv_test::without_dates(kiv_test::read_file(logger.path("03.07.2007.09.default.log"))),
        " - [m] in the first hour\n - [m] without memory\n");
    EXPECT_EQ(kiv_test::without_dates(kiv_test::read_file(logger.path())), " - [m] with memory\n");
}

TEST(AddLogEntry, WritesALineThatCannotBeQueuedAfterTheQueuedOnes) {
    test_logger logger(to_file);
    KivLogger::SetLoggerDetachedStatus(logger.get(), true);
    const std::string text(100, 'x');
    const auto add = [&](int number) {
        KivLogger::AddLogEntry(logger.get(), 1, "m", "%d %s", number, text.c_str());
    };
    add(1);
    add(2);
    without_memory([&] {
        for (int number = 3; number <= 20; ++number) {
            add(number);
        }
    });
    add(21);
    logger.destroy();
    std::string expected;
    for (int number = 1; number <= 21; ++number) {
        expected += " - [m] " + std::to_string(number) + " " + text + "\n";
    }
    EXPECT_EQ(kiv_test::without_dates(kiv_test::read_file(logger.path())), expected);
}

TEST(AddLogEntry, CutsALongModuleNameWhenMemoryRunsOut) {
    test_logger logger(to_file);
    const std::string module(5000, 'm');
    without_memory(
        [&] { KivLogger::AddLogEntry(logger.get(), 1, module.c_str(), "%s", "the message"); });
    const std::string line = kiv_test::without_dates(kiv_test::read_file(logger.path()));
    EXPECT_TRUE(line.starts_with(" - [mmm"));
    EXPECT_TRUE(line.ends_with("m] the message\n"));
    EXPECT_LT(line.size(), module.size());
}

TEST(detached_logger_thread, OutlivesALineWithoutRoomForItsLineBreak) {
    test_logger logger(to_file);
    KivLogger::SetLoggerDetachedStatus(logger.get(), true);
    KivLogger::FlushDetachedThread(logger.get());
    std::list<std::string> line;
    line.emplace_back(100, 'x'); // which no producer of the library would queue
    line.front().shrink_to_fit();
    without_memory([&] {
        pthread_mutex_lock(logger.record().queue_lock);
        logger.record().queue.splice(logger.record().queue.end(), line);
        pthread_mutex_unlock(logger.record().queue_lock);
        KivLogger::FlushDetachedThread(logger.get());
    });
    KivLogger::AddLogEntry(logger.get(), 1, "m", "the next one");
    logger.destroy();
    EXPECT_EQ(kiv_test::without_dates(kiv_test::read_file(logger.path())), " - [m] the next one\n");
}

TEST(LoadConfigFile, LeavesTheManagerAloneWhenMemoryRunsOut) {
    const kiv_test::temp_directory directory;
    const std::string path = directory.file("a-name-too-long-for-a-small-string.conf");
    kiv_test::write_file(path, "b = 2\na = a value that is too long for a small string\n");
    kivConfigManager manager;
    manager.values["kept"] = "as it was";
    manager.filePath = "elsewhere";
    fail_each_allocation(
        [&] { LoadConfigFile(&manager, path.c_str()); },
        [&](bool threw) {
            EXPECT_TRUE(threw);
            EXPECT_EQ(manager.values, (std::map<std::string, std::string>{{"kept", "as it was"}}));
            EXPECT_EQ(manager.filePath, "elsewhere");
        });
    EXPECT_EQ(manager.values.size(), 2U);
    EXPECT_EQ(manager.filePath, path);
}

TEST(CreateProcsSnapshot, LeavesTheListEmptyWhenMemoryRunsOut) {
    std::list<_procs_snapshot*> list;
    // The first points are those of the table, the last ones those of the list.
    ASSERT_TRUE(CreateProcsSnapshot(&list, ::getpid()));
    const kiv_test::idle_child first;
    const kiv_test::idle_child second;
    fail_each_allocation([&list] { CreateProcsSnapshot(&list, ::getpid()); },
                         [&list](bool) { EXPECT_TRUE(list.empty()); });
    EXPECT_EQ(list.size(), 2U);
    DeleteProcsSnapshot(&list);
}

TEST(SpawnProcess, ReapsAChildThatFailedAndReportsItsErrorWithoutMemoryForTheText) {
    int error_code = 0;
    std::string error_text;
    bool had_no_text = false;
    fail_each_allocation(
        [&] {
            error_code = 0;
            error_text = "before";
            EXPECT_EQ(SpawnProcess("/nonexistent/program", "", "", nullptr, nullptr, error_code,
                                   error_text, "", ""),
                      nullptr);
        },
        [&](bool threw) {
            EXPECT_EQ(error_code, threw ? 0 : ENOENT);
            EXPECT_EQ(error_text, threw ? "before" : "");
            had_no_text = had_no_text || !threw;
            EXPECT_EQ(::waitpid(-1, nullptr, 0), -1);
            EXPECT_EQ(errno, ECHILD);
        });
    EXPECT_TRUE(had_no_text);
    EXPECT_EQ(error_text, "No such file or directory");
}

TEST(SpawnProcess, EndsTheCallerWithStatusOneWhenNeitherAProcessNorMemoryIsLeft) {
    const kiv_test::default_log log;
    constexpr int threw_before = 77;
    for (long number = 1;; ++number) {
        SCOPED_TRACE(number);
        const pid_t caller = ::fork();
        if (caller == 0) {
            KivLogger::SetLoggerDetachedStatus(GetDefaultLogger(), true);
            // A user of its own, so that the limit meets no process of anybody else.
            if (::getuid() == 0 && ::setuid(54321) != 0) {
                ::_exit(2);
            }
            const rlimit none{0, 0};
            ::setrlimit(RLIMIT_NPROC, &none);
            kiv_test::arm({fallible::memory, ENOMEM, number, /*for_ever=*/true});
            int code = 0;
            std::string text;
            try {
                SpawnProcess("/bin/true", "", "", nullptr, nullptr, code, text, "", "");
            } catch (const std::bad_alloc&) {
                ::_exit(threw_before);
            }
            ::_exit(3);
        }
        int status = 0;
        ASSERT_EQ(kiv_test::wait_for_child(caller, &status), caller);
        ASSERT_TRUE(WIFEXITED(status));
        if (WEXITSTATUS(status) != threw_before) {
            EXPECT_EQ(WEXITSTATUS(status), 1);
            break;
        }
    }
    EXPECT_NE(log.text().find("Failure invoking fork()"), std::string::npos);
}

TEST(kqueue, FailsWithAnErrorNumberWhenMemoryRunsOut) {
    int queue = -1;
    fail_each_allocation([&queue] { queue = kqueue(); },
                         [&queue](bool threw) {
                             EXPECT_FALSE(threw);
                             EXPECT_EQ(queue, -1);
                             EXPECT_EQ(errno, ENOMEM);
                         });
    EXPECT_GE(queue, 0);
    ::close(queue);
}

TEST(kevent, FailsWithAnErrorNumberWhenMemoryRunsOut) {
    const kiv_test::local_connection sockets;
    const unique_fd queue(kqueue());
    struct kevent change {};
    EV_SET(&change, static_cast<std::uintptr_t>(sockets.near.get()), EVFILT_WRITE, EV_ADD, 0, 0,
           nullptr);
    int result = 0;
    fail_each_allocation([&] { result = kevent(queue.get(), &change, 1, nullptr, 0, nullptr); },
                         [&](bool threw) {
                             EXPECT_FALSE(threw);
                             EXPECT_EQ(result, -1);
                             EXPECT_EQ(errno, ENOMEM);
                             struct kevent event {};
                             const timespec no_wait{};
                             EXPECT_EQ(kevent(queue.get(), nullptr, 0, &event, 1, &no_wait),
                                       0); // no such filter
                         });
    EXPECT_EQ(result, 0);
}

TEST(GetNextMessage, ThrowsAndReleasesTheMutexWhenThereIsNoMemoryToDecompress) {
    const kiv_test::local_connection sockets;
    KivSocket::kivSocketStream sender;
    KivSocket::kivSocketStream receiver;
    sender.socket = sockets.near.get();
    receiver.socket = sockets.far.get();
    const std::string body(1000, 'z');
    char* message = nullptr;
    const auto send = [&] {
        ASSERT_TRUE(sender.AddMessage("Z", body.c_str()));
        while (sender.outUsed > 0) {
            ASSERT_GT(sender.Write(), 0);
            while (receiver.Read() > 0) {
            }
        }
    };
    send();
    fail_each_allocation([&] { message = receiver.GetNextMessage(); },
                         [&](bool threw) {
                             EXPECT_TRUE(threw || message != nullptr);
                             EXPECT_EQ(pthread_mutex_trylock(receiver.mutex), 0);
                             pthread_mutex_unlock(receiver.mutex);
                             KivSocket::destroyEncodedMessage(std::exchange(message, nullptr));
                             if (receiver.inUsed == 0) {
                                 send(); // the message was lost
                             }
                         });
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(message + 1, body);
    KivSocket::destroyEncodedMessage(message);
}

TEST(encodeMessage, SendsPlainlyWhenThereIsNoMemoryToCompress) {
    const std::string body(1000, 'z');
    bool was_plain = false;
    const auto encode_in_a_new_thread = [&](long number) {
        long failures = 0;
        std::thread([&] {
            char* frame = nullptr;
            unsigned long payload_length = 0;
            unsigned long frame_length = 0;
            kiv_test::arm({fallible::memory, ENOMEM, number, /*for_ever=*/false});
            try {
                KivSocket::encodeMessage("Z", body.c_str(), &frame, &payload_length, &frame_length);
            } catch (const std::bad_alloc&) {
                frame = nullptr;
            }
            failures = kiv_test::disarm();
            was_plain = was_plain || (frame != nullptr && frame_length == body.size() + 6);
            KivSocket::destroyEncodedMessage(frame);
        }).join();
        return failures;
    };
    for (long number = 1; encode_in_a_new_thread(number) != 0; ++number) {
    }
    // Under a sanitizer the memory that zlib asks for never fails.
    EXPECT_EQ(was_plain, kiv_test::counts_blocks);
}

} // namespace
