// The program interposes gettimeofday, pthread_cond_timedwait and pthread_mutex_init, so that a
// test can set the time of day, see a deadline and make the creation of a mutex fail.

#include "KivFramework/KivProcesses.h"

#include "tests/oracle/rw_locker_model.h"
#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/time.h>

namespace {

std::atomic<bool> mutex_init_fails{false};
std::atomic<pthread_mutex_t*> unlock_fails_for{nullptr};
std::atomic<const timeval*> time_of_day{nullptr}; // the system's when null
std::atomic<timespec*> seen_deadline{nullptr};    // takes the deadlines when not null

template <typename call_type>
call_type next_definition(const char* name) {
    return reinterpret_cast<call_type>(::dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" int pthread_mutex_init(pthread_mutex_t* mutex,
                                  const pthread_mutexattr_t* attributes) noexcept {
    if (mutex_init_fails) {
        return EAGAIN;
    }
    static const auto next = next_definition<int (*)(pthread_mutex_t*, const pthread_mutexattr_t*)>(
        "pthread_mutex_init");
    return next(mutex, attributes);
}

extern "C" int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept {
    if (mutex == unlock_fails_for) {
        return EPERM;
    }
    static const auto next = next_definition<int (*)(pthread_mutex_t*)>("pthread_mutex_unlock");
    return next(mutex);
}

extern "C" int gettimeofday(timeval* now, void* zone) noexcept {
    if (const timeval* fixed = time_of_day) {
        *now = *fixed;
        return 0;
    }
    static const auto next = next_definition<int (*)(timeval*, void*)>("gettimeofday");
    return next(now, zone);
}

extern "C" int pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                      const timespec* deadline) {
    if (timespec* seen = seen_deadline) {
        *seen = *deadline;
    }
    static const auto next =
        next_definition<int (*)(pthread_cond_t*, pthread_mutex_t*, const timespec*)>(
            "pthread_cond_timedwait");
    return next(cond, mutex, deadline);
}

namespace {

using namespace KivFramework::KivProcesses;

// Owns a locker's conditions, mutex and record.
struct locker_deleter {
    void operator()(_kivRWLocker* locker) const {
        DestroyRWLocker(locker);
        delete locker;
    }
};
using owned_locker = std::unique_ptr<_kivRWLocker, locker_deleter>;

owned_locker new_locker(bool recursive = false) {
    owned_locker locker(CreateRWLocker(false));
    locker->recursive = recursive ? 1 : 0;
    return locker;
}

struct condition_and_mutex {
    condition_and_mutex() : mutex(CreateMutex()), condition(CreateConditional(&mutex)) {}
    ~condition_and_mutex() {
        DestroyConditional(condition);
        DestroyMutex(mutex);
    }
    condition_and_mutex(const condition_and_mutex&) = delete;
    condition_and_mutex& operator=(const condition_and_mutex&) = delete;

    pthread_mutex_t* mutex;
    _posix_conditional_var* condition;
};

struct counts {
    int lock_count;
    int waiting_readers;
    int waiting_writers;

    bool operator==(const counts&) const = default;
};

counts counts_of(_kivRWLocker& locker) {
    LockMutex(locker.mutex);
    const counts seen{locker.lock_count, locker.waiting_readers, locker.waiting_writers};
    UnlockMutex(locker.mutex);
    return seen;
}

bool comes_to(_kivRWLocker& locker, const counts& expected) {
    return kiv_test::wait_until([&] { return counts_of(locker) == expected; });
}

// Where a field stands in its record. (offsetof is not for records that hold a map.)
template <typename record_type, typename field_type>
std::size_t offset_in(const record_type& record, const field_type& field) {
    return static_cast<std::size_t>(reinterpret_cast<const char*>(&field) -
                                    reinterpret_cast<const char*>(&record));
}

TEST(PosixConditionalVar, HasItsFieldsInOrder) {
    constexpr std::size_t word = sizeof(void*);
    const _posix_conditional_var record;
    EXPECT_EQ(offset_in(record, record.mutex), 0);
    EXPECT_EQ(offset_in(record, record.cond), word);
    EXPECT_EQ(sizeof(record), 2 * word);
}

TEST(RWLocker, HasItsFieldsInOrder) {
    constexpr std::size_t word = sizeof(void*);
    constexpr std::size_t counts_at = 3 * word;
    constexpr std::size_t thread_at = counts_at + 4 * sizeof(int);
    constexpr std::size_t map_at = thread_at + sizeof(pthread_t);
    const _kivRWLocker record;
    EXPECT_EQ(offset_in(record, record.mutex), 0);
    EXPECT_EQ(offset_in(record, record.readers_cond), word);
    EXPECT_EQ(offset_in(record, record.writers_cond), 2 * word);
    EXPECT_EQ(offset_in(record, record.lock_count), counts_at);
    EXPECT_EQ(offset_in(record, record.waiting_readers), counts_at + sizeof(int));
    EXPECT_EQ(offset_in(record, record.waiting_writers), counts_at + 2 * sizeof(int));
    EXPECT_EQ(offset_in(record, record.recursive), counts_at + 3 * sizeof(int));
    EXPECT_EQ(offset_in(record, record.writer_thread), thread_at);
    EXPECT_EQ(offset_in(record, record.reader_threads), map_at);
    EXPECT_EQ(sizeof(record), map_at + sizeof(std::map<pthread_t, int>));
}

TEST(CreateMutex, GivesAFreeMutexThatIsNotRecursive) {
    pthread_mutex_t* mutex = CreateMutex();
    ASSERT_NE(mutex, nullptr);
    EXPECT_TRUE(TryLockMutex(mutex));
    EXPECT_FALSE(TryLockMutex(mutex));
    EXPECT_EQ(UnlockMutex(mutex), 0);
    EXPECT_EQ(LockMutex(mutex), 0);
    EXPECT_FALSE(TryLockMutex(mutex));
    EXPECT_EQ(UnlockMutex(mutex), 0);
    EXPECT_TRUE(DestroyMutex(mutex));
}

TEST(CreateMutex, ReturnsNullWhenTheSystemRefuses) {
    mutex_init_fails = true;
    EXPECT_EQ(CreateMutex(), nullptr);
    mutex_init_fails = false;
}

TEST(LockMutex, AndUnlockPassTheErrorNumberOfThePlatformThrough) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_t checking;
    pthread_mutex_init(&checking, &attributes);
    EXPECT_EQ(LockMutex(&checking), 0);
    EXPECT_EQ(LockMutex(&checking), EDEADLK);
    unlock_fails_for = &checking;
    EXPECT_EQ(UnlockMutex(&checking), EPERM);
    unlock_fails_for = nullptr;
    EXPECT_EQ(UnlockMutex(&checking), 0);
    pthread_mutex_destroy(&checking);
    pthread_mutexattr_destroy(&attributes);
}

TEST(DestroyMutex, IgnoresNull) {
    EXPECT_TRUE(DestroyMutex(nullptr));
}

TEST(CreateConditional, BorrowsTheMutexThatTheHandleHolds) {
    pthread_mutex_t* mutex = CreateMutex();
    pthread_mutex_t* handle = mutex;
    _posix_conditional_var* condition = CreateConditional(&handle);
    handle = nullptr;
    EXPECT_EQ(condition->mutex, mutex);
    ASSERT_NE(condition->cond, nullptr);
    EXPECT_TRUE(DestroyConditional(condition));
    EXPECT_TRUE(TryLockMutex(mutex)) << "the borrowed mutex must live on";
    UnlockMutex(mutex);
    DestroyMutex(mutex);
}

TEST(DestroyConditional, IgnoresNull) {
    EXPECT_TRUE(DestroyConditional(nullptr));
}

// Threads that wait on a condition, each in the loop that every wait needs.
class waiters {
public:
    waiters(int count, std::function<bool(_posix_conditional_var*)> wait) {
        for (int i = 0; i < count; ++i) {
            threads_.emplace_back([this, wait] {
                LockMutex(condition_.mutex);
                ++waiting_;
                while (permits_ == 0) {
                    results_ok_ = wait(condition_.condition) && results_ok_;
                }
                --permits_;
                --waiting_;
                UnlockMutex(condition_.mutex);
            });
        }
        EXPECT_TRUE(kiv_test::wait_until([&] { return waiting() == count; }));
    }
    ~waiters() {
        for (std::thread& thread : threads_) {
            thread.join();
        }
    }
    waiters(const waiters&) = delete;
    waiters& operator=(const waiters&) = delete;

    void permit(int count, bool (*wake)(_posix_conditional_var*)) {
        LockMutex(condition_.mutex);
        permits_ += count;
        EXPECT_TRUE(wake(condition_.condition));
        UnlockMutex(condition_.mutex);
    }

    int waiting() {
        LockMutex(condition_.mutex);
        const int count = waiting_;
        UnlockMutex(condition_.mutex);
        return count;
    }

    bool results_ok() {
        LockMutex(condition_.mutex);
        const bool ok = results_ok_;
        UnlockMutex(condition_.mutex);
        return ok;
    }

private:
    condition_and_mutex condition_;
    int waiting_ = 0;
    int permits_ = 0;
    bool results_ok_ = true;
    std::vector<std::thread> threads_;
};

TEST(SignalConditional, WakesOneWaiterAndReturnsTrue) {
    waiters both(2, WaitConditional);
    both.permit(1, SignalConditional);
    EXPECT_TRUE(kiv_test::wait_until([&] { return both.waiting() == 1; }));
    both.permit(1, SignalConditional);
    EXPECT_TRUE(kiv_test::wait_until([&] { return both.waiting() == 0; }));
    EXPECT_TRUE(both.results_ok()) << "WaitConditional always returns true";
}

TEST(BroadcastSignalConditional, WakesAllWaitersAndReturnsTrue) {
    waiters all(4, WaitConditional);
    all.permit(4, BroadcastSignalConditional);
    EXPECT_TRUE(kiv_test::wait_until([&] { return all.waiting() == 0; }));
}

TEST(WaitTimedConditional, ReturnsTrueAfterASignal) {
    waiters one(1, [](_posix_conditional_var* condition) {
        constexpr int one_hour_ms = 3600000;
        return WaitTimedConditional(condition, one_hour_ms);
    });
    one.permit(1, SignalConditional);
    EXPECT_TRUE(kiv_test::wait_until([&] { return one.waiting() == 0; }));
    EXPECT_TRUE(one.results_ok());
}

TEST(WaitTimedConditional, ReturnsFalseAtOnceAfterZeroMilliseconds) {
    const condition_and_mutex waited;
    const timeval now{1000, 0};
    time_of_day = &now; // away from the one microsecond that makes no deadline
    LockMutex(waited.mutex);
    EXPECT_FALSE(WaitTimedConditional(waited.condition, 0));
    EXPECT_FALSE(TryLockMutex(waited.mutex)) << "the mutex is held again after the wait";
    UnlockMutex(waited.mutex);
    time_of_day = nullptr;
}

TEST(WaitTimedConditional, CarriesMicrosecondsIntoSecondsOnlyAboveOneMillion) {
    const condition_and_mutex waited;
    const struct {
        const char* what;
        timeval now;
        timespec deadline;
        int milliseconds;
        bool result;
    } cases[] = {
        {"a sum of 999999", {1000, 998999}, {1000, 999999000}, 1, false},
        {"a sum of exactly 1000000 makes no deadline", {1000, 999000}, {1000, 1000000000}, 1, true},
        {"a sum of 1000001", {1000, 999001}, {1001, 1000}, 1, false},
        {"the largest sum", {1000, 999999}, {1001, 998999000}, 999, false},
        {"whole seconds", {1000, 5}, {1002, 5000}, 2000, false},
        {"seconds and rest", {1000, 900000}, {1003, 245000000}, 2345, false},
        {"no time", {1000, 7}, {1000, 7000}, 0, false},
        {"negative within the second", {1000, 700000}, {1000, 200000000}, -500, false},
        {"negative beyond the second makes no deadline", {1000, 0}, {1000, -1000000}, -1, true},
        {"negative, truncated toward zero", {1000, 600000}, {999, 100000000}, -1500, false},
        {"the least", {5000000, 700000}, {5000000 - 2147483, 52000000}, INT_MIN, false},
    };
    for (const auto& [what, now, deadline, milliseconds, result] : cases) {
        SCOPED_TRACE(what);
        timespec seen{};
        time_of_day = &now;
        seen_deadline = &seen;
        LockMutex(waited.mutex);
        EXPECT_EQ(WaitTimedConditional(waited.condition, milliseconds), result);
        UnlockMutex(waited.mutex);
        time_of_day = nullptr;
        seen_deadline = nullptr;
        EXPECT_EQ(seen.tv_sec, deadline.tv_sec);
        EXPECT_EQ(seen.tv_nsec, deadline.tv_nsec);
    }
}

TEST(CreateRWLocker, GivesAFreeLockerWhoseConditionsUseItsMutex) {
    const owned_locker locker = new_locker();
    EXPECT_EQ(counts_of(*locker), (counts{0, 0, 0}));
    EXPECT_EQ(locker->recursive, 0);
    EXPECT_EQ(locker->writer_thread, pthread_t());
    EXPECT_TRUE(locker->reader_threads.empty());
    EXPECT_EQ(locker->readers_cond->mutex, locker->mutex);
    EXPECT_EQ(locker->writers_cond->mutex, locker->mutex);
}

TEST(CreateRWLocker, GivesANonRecursiveLockerWhateverItIsTold) {
    const owned_locker locker(CreateRWLocker(true));
    EXPECT_EQ(locker->recursive, 0);
    LockWriteRWLocker(locker.get());
    EXPECT_FALSE(TryLockWriteRWLocker(locker.get()));
    std::thread unlocker([&] {
        EXPECT_TRUE(comes_to(*locker, {-1, 0, 1}));
        UnlockRWLocker(locker.get());
    });
    LockWriteRWLocker(locker.get()); // blocks itself until the other thread helps
    unlocker.join();
    EXPECT_EQ(counts_of(*locker), (counts{-1, 0, 0}));
    EXPECT_EQ(locker->writer_thread, pthread_t()) << "kept in recursive mode only";
    UnlockRWLocker(locker.get());
}

TEST(TryLockReadRWLocker, ReturnsFalseOnAFreeLockerButTakesAHold) {
    const owned_locker locker = new_locker();
    EXPECT_FALSE(TryLockReadRWLocker(locker.get()));
    EXPECT_EQ(locker->lock_count, 1);
    EXPECT_TRUE(locker->reader_threads.empty()) << "kept in recursive mode only";
    UnlockRWLocker(locker.get());
    EXPECT_EQ(locker->lock_count, 0);
}

TEST(TryLockReadRWLocker, TakesNoHoldWhileAWriterHolds) {
    const owned_locker locker = new_locker();
    LockWriteRWLocker(locker.get());
    EXPECT_FALSE(TryLockReadRWLocker(locker.get()));
    EXPECT_EQ(locker->lock_count, -1);
    UnlockRWLocker(locker.get());
}

TEST(TryLockReadRWLocker, TakesAHoldWhileWritersWait) {
    const owned_locker locker = new_locker();
    LockReadRWLocker(locker.get());
    std::thread writer([&] {
        LockWriteRWLocker(locker.get());
        UnlockRWLocker(locker.get());
    });
    EXPECT_TRUE(comes_to(*locker, {1, 0, 1}));
    EXPECT_FALSE(TryLockReadRWLocker(locker.get()));
    EXPECT_EQ(counts_of(*locker), (counts{2, 0, 1}));
    UnlockRWLocker(locker.get());
    UnlockRWLocker(locker.get());
    writer.join();
}

TEST(TryLockReadRWLocker, ReturnsTrueOnRecursiveReEntry) {
    const owned_locker locker = new_locker(true);
    EXPECT_FALSE(TryLockReadRWLocker(locker.get()));
    EXPECT_TRUE(TryLockReadRWLocker(locker.get()));
    LockReadRWLocker(locker.get());
    EXPECT_EQ(locker->lock_count, 3);
    EXPECT_EQ(locker->reader_threads, (std::map<pthread_t, int>{{pthread_self(), 3}}));
    for (int i = 0; i < 3; ++i) {
        UnlockRWLocker(locker.get());
    }
    EXPECT_EQ(locker->lock_count, 0);
    EXPECT_TRUE(locker->reader_threads.empty());
}

TEST(TryLockReadRWLocker, WithATimeIsAPlaceholderThatTouchesNothing) {
    const owned_locker locker = new_locker();
    EXPECT_FALSE(TryLockReadRWLocker(locker.get(), 1000));
    EXPECT_EQ(counts_of(*locker), (counts{0, 0, 0}));
}

TEST(TryLockWriteRWLocker, WithATimeIsAPlaceholderThatTouchesNothing) {
    const owned_locker locker = new_locker();
    EXPECT_FALSE(TryLockWriteRWLocker(locker.get(), 1000));
    EXPECT_EQ(counts_of(*locker), (counts{0, 0, 0}));
}

TEST(TryLockWriteRWLocker, TakesAFreeLockOnly) {
    const owned_locker locker = new_locker();
    LockReadRWLocker(locker.get());
    EXPECT_FALSE(TryLockWriteRWLocker(locker.get()));
    EXPECT_EQ(locker->lock_count, 1);
    UnlockRWLocker(locker.get());
    EXPECT_TRUE(TryLockWriteRWLocker(locker.get()));
    EXPECT_EQ(locker->lock_count, -1);
    EXPECT_FALSE(TryLockWriteRWLocker(locker.get()));
    EXPECT_EQ(locker->lock_count, -1);
    UnlockRWLocker(locker.get());
}

TEST(LockWriteRWLocker, NestsInARecursiveLockerUntilTheLastUnlock) {
    const owned_locker locker = new_locker(true);
    LockWriteRWLocker(locker.get());
    LockWriteRWLocker(locker.get());
    EXPECT_TRUE(TryLockWriteRWLocker(locker.get()));
    EXPECT_EQ(locker->lock_count, -3);
    EXPECT_NE(pthread_equal(locker->writer_thread, pthread_self()), 0);
    std::thread other([&] { EXPECT_FALSE(TryLockWriteRWLocker(locker.get())); });
    other.join();
    UnlockRWLocker(locker.get());
    UnlockRWLocker(locker.get());
    EXPECT_EQ(locker->lock_count, -1);
    EXPECT_NE(pthread_equal(locker->writer_thread, pthread_self()), 0);
    UnlockRWLocker(locker.get());
    EXPECT_EQ(locker->lock_count, 0);
    EXPECT_EQ(locker->writer_thread, pthread_t());
}

TEST(LockReadRWLocker, HoldsStackUp) {
    const owned_locker locker = new_locker();
    for (int i = 0; i < 5; ++i) {
        LockReadRWLocker(locker.get());
    }
    EXPECT_EQ(locker->lock_count, 5);
    for (int i = 0; i < 5; ++i) {
        UnlockRWLocker(locker.get());
    }
    EXPECT_EQ(locker->lock_count, 0);
}

TEST(LockReadRWLocker, GivesWayToAWaitingWriter) {
    const owned_locker locker = new_locker();
    std::vector<int> order; // guarded by the locker
    LockReadRWLocker(locker.get());
    std::thread writer([&] {
        LockWriteRWLocker(locker.get());
        order.push_back(1);
        UnlockRWLocker(locker.get());
    });
    EXPECT_TRUE(comes_to(*locker, {1, 0, 1}));
    std::thread reader([&] {
        LockReadRWLocker(locker.get());
        order.push_back(2);
        UnlockRWLocker(locker.get());
    });
    EXPECT_TRUE(comes_to(*locker, {1, 1, 1}));
    UnlockRWLocker(locker.get());
    writer.join();
    reader.join();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(LockReadRWLocker, ReEntersARecursiveLockerPastAWaitingWriter) {
    const owned_locker locker = new_locker(true);
    LockReadRWLocker(locker.get());
    std::thread writer([&] {
        LockWriteRWLocker(locker.get());
        UnlockRWLocker(locker.get());
    });
    EXPECT_TRUE(comes_to(*locker, {1, 0, 1}));
    LockReadRWLocker(locker.get());
    EXPECT_EQ(counts_of(*locker), (counts{2, 0, 1}));
    UnlockRWLocker(locker.get());
    UnlockRWLocker(locker.get());
    writer.join();
}

TEST(UnlockRWLocker, LeavesAFreeLockerAlone) {
    const owned_locker locker = new_locker();
    UnlockRWLocker(locker.get());
    EXPECT_EQ(counts_of(*locker), (counts{0, 0, 0}));
}

TEST(UnlockRWLocker, LetsAllWaitingReadersGoAtOnce) {
    const owned_locker locker = new_locker();
    LockWriteRWLocker(locker.get());
    std::vector<std::thread> readers;
    readers.reserve(3);
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] { LockReadRWLocker(locker.get()); });
    }
    EXPECT_TRUE(comes_to(*locker, {-1, 3, 0}));
    UnlockRWLocker(locker.get());
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(counts_of(*locker), (counts{3, 0, 0}));
    for (int i = 0; i < 3; ++i) {
        UnlockRWLocker(locker.get());
    }
}

TEST(UnlockRWLocker, ByAnotherThreadLeavesTheReadersEntryOfARecursiveLocker) {
    const owned_locker locker = new_locker(true);
    LockReadRWLocker(locker.get());
    std::thread other([&] { UnlockRWLocker(locker.get()); });
    other.join();
    EXPECT_EQ(locker->lock_count, 0);
    EXPECT_EQ(locker->reader_threads, (std::map<pthread_t, int>{{pthread_self(), 1}}));
}

TEST(DestroyRWLocker, ReturnsFalseAndLeavesTheRecord) {
    _kivRWLocker* locker = CreateRWLocker(false);
    LockReadRWLocker(locker);
    UnlockRWLocker(locker);
    locker->recursive = 17;
    EXPECT_FALSE(DestroyRWLocker(locker));
    EXPECT_EQ(locker->recursive, 17);
    delete locker;
}

TEST(DestroyRWLocker, IgnoresNull) {
    EXPECT_FALSE(DestroyRWLocker(nullptr));
}

// A thread that waits for a locker until it is cancelled.
class doomed_waiter {
public:
    doomed_waiter(_kivRWLocker* locker, void (*lock)(_kivRWLocker*))
        : locker_(locker), lock_(lock) {
        EXPECT_EQ(::pthread_create(&thread_, nullptr, run, this), 0);
    }

    // Whether the thread was cancelled, rather than having the lock by then.
    bool cancel_and_join() {
        EXPECT_EQ(::pthread_cancel(thread_), 0);
        void* result = nullptr;
        EXPECT_EQ(::pthread_join(thread_, &result), 0);
        return result == PTHREAD_CANCELED;
    }

private:
    static void* run(void* self) {
        auto* waiter = static_cast<doomed_waiter*>(self);
        waiter->lock_(waiter->locker_);
        return nullptr;
    }

    _kivRWLocker* locker_;
    void (*lock_)(_kivRWLocker*);
    pthread_t thread_{};
};

TEST(LockReadRWLocker, AThreadCancelledInItsWaitIsNoLongerCounted) {
    const owned_locker locker = new_locker();
    LockWriteRWLocker(locker.get());
    doomed_waiter reader(locker.get(), LockReadRWLocker);
    EXPECT_TRUE(comes_to(*locker, {-1, 1, 0}));
    EXPECT_TRUE(reader.cancel_and_join());
    EXPECT_EQ(counts_of(*locker), (counts{-1, 0, 0}));
    UnlockRWLocker(locker.get());
    EXPECT_EQ(counts_of(*locker), (counts{0, 0, 0}));
}

TEST(LockWriteRWLocker, AThreadCancelledInItsWaitLetsTheReadersGoThatItHeldBack) {
    const owned_locker locker = new_locker();
    LockReadRWLocker(locker.get());
    doomed_waiter writer(locker.get(), LockWriteRWLocker);
    EXPECT_TRUE(comes_to(*locker, {1, 0, 1}));
    std::thread reader([&] { LockReadRWLocker(locker.get()); });
    EXPECT_TRUE(comes_to(*locker, {1, 1, 1}));
    EXPECT_TRUE(writer.cancel_and_join());
    reader.join();
    EXPECT_EQ(counts_of(*locker), (counts{2, 0, 0}));
    UnlockRWLocker(locker.get());
    UnlockRWLocker(locker.get());
}

TEST(LockWriteRWLocker, AThreadCancelledAsItIsWokenPassesTheWakeUpOn) {
    for (int round = 0; round < 100; ++round) {
        const owned_locker locker = new_locker();
        LockReadRWLocker(locker.get());
        doomed_waiter writer(locker.get(), LockWriteRWLocker);
        EXPECT_TRUE(comes_to(*locker, {1, 0, 1}));
        std::thread reader([&] {
            LockReadRWLocker(locker.get());
            UnlockRWLocker(locker.get());
        });
        EXPECT_TRUE(comes_to(*locker, {1, 1, 1}));
        UnlockRWLocker(locker.get());
        if (!writer.cancel_and_join()) {
            UnlockRWLocker(locker.get());
        }
        reader.join();
        EXPECT_EQ(counts_of(*locker), (counts{0, 0, 0}));
    }
}

// Threads that do what they are told, one operation at a time, and may get stuck in it.
class commanded_thread {
public:
    commanded_thread() : thread_([this] { run(); }) {}
    ~commanded_thread() {
        dismissed_ = true;
        start([] { return false; });
        thread_.join();
    }
    commanded_thread(const commanded_thread&) = delete;
    commanded_thread& operator=(const commanded_thread&) = delete;

    void start(std::function<bool()> operation) {
        const std::lock_guard guard(mutex_);
        operation_ = std::move(operation);
        changed_.notify_all();
    }

    bool is_idle() {
        const std::lock_guard guard(mutex_);
        return !operation_;
    }

    // The result of an operation that is sure to end.
    bool result() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return !operation_; });
        return result_;
    }

private:
    void run() {
        while (!dismissed_) {
            std::unique_lock lock(mutex_);
            changed_.wait(lock, [this] { return static_cast<bool>(operation_); });
            const std::function<bool()> operation = operation_;
            lock.unlock();
            const bool result = operation();
            lock.lock();
            result_ = result;
            operation_ = nullptr;
            changed_.notify_all();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::function<bool()> operation_;
    bool result_ = false;
    std::atomic<bool> dismissed_{false};
    std::thread thread_;
};

// Several threads take and release one locker in random ways; after each step the locker must look
// as the model says, with the same threads stuck in the same waits.
class random_locker_session {
public:
    random_locker_session(unsigned int seed, bool recursive)
        : random_(seed), locker_(new_locker(recursive)), model_(recursive) {}

    ~random_locker_session() { release_all(); }
    random_locker_session(const random_locker_session&) = delete;
    random_locker_session& operator=(const random_locker_session&) = delete;

    void step() {
        using result = kiv_test::rw_locker_model::result;
        const std::size_t thread = any_idle_thread();
        const int name = static_cast<int>(thread);
        _kivRWLocker* locker = locker_.get();
        switch (random_() % 8) {
        case 0:
        case 1:
            if (may_wait()) {
                perform(thread, model_.lock_read(name), readers_, [locker] {
                    LockReadRWLocker(locker);
                    return false;
                });
            }
            break;
        case 2:
        case 3:
            if (may_wait()) {
                perform(thread, model_.lock_write(name), writers_, [locker] {
                    LockWriteRWLocker(locker);
                    return false;
                });
            }
            break;
        case 4: {
            const result expected = model_.try_lock_read(name);
            threads_[thread].start([locker] { return TryLockReadRWLocker(locker); });
            ASSERT_EQ(threads_[thread].result(), expected == result::yes);
            break;
        }
        case 5: {
            const result expected = model_.try_lock_write(name);
            threads_[thread].start([locker] { return TryLockWriteRWLocker(locker); });
            ASSERT_EQ(threads_[thread].result(), expected == result::yes);
            break;
        }
        default:
            unlock(thread);
        }
        check();
    }

private:
    using wake_up = kiv_test::rw_locker_model::wake_up;

    // One thread always stays free, to release what the others wait for.
    bool may_wait() const { return readers_.size() + writers_.size() + 1 < threads_.size(); }

    std::size_t any_idle_thread() {
        std::size_t thread = random_() % threads_.size();
        while (readers_.count(thread) + writers_.count(thread) != 0) {
            thread = (thread + 1) % threads_.size();
        }
        return thread;
    }

    void perform(std::size_t thread, kiv_test::rw_locker_model::result expected,
                 std::set<std::size_t>& waiters, std::function<bool()> operation) {
        threads_[thread].start(std::move(operation));
        if (expected == kiv_test::rw_locker_model::result::waits) {
            waiters.insert(thread);
        } else {
            threads_[thread].result();
        }
    }

    void unlock(std::size_t thread) {
        _kivRWLocker* locker = locker_.get();
        const wake_up woken = model_.unlock(static_cast<int>(thread));
        threads_[thread].start([locker] {
            UnlockRWLocker(locker);
            return false;
        });
        threads_[thread].result();
        if (woken == wake_up::all_readers) {
            for (const std::size_t reader : readers_) {
                threads_[reader].result();
                model_.reader_goes_on(static_cast<int>(reader));
            }
            readers_.clear();
        } else if (woken == wake_up::one_writer) {
            // Any of them, but only one.
            std::set<std::size_t>::iterator writer;
            ASSERT_TRUE(kiv_test::wait_until([&] {
                writer = std::find_if(writers_.begin(), writers_.end(), [this](std::size_t waiter) {
                    return threads_[waiter].is_idle();
                });
                return writer != writers_.end();
            }));
            model_.writer_goes_on(static_cast<int>(*writer));
            writers_.erase(writer);
        }
    }

    void check() {
        const counts expected{model_.lock_count, model_.waiting_readers, model_.waiting_writers};
        ASSERT_TRUE(comes_to(*locker_, expected))
            << "lock count " << expected.lock_count << ", waiting readers "
            << expected.waiting_readers << ", waiting writers " << expected.waiting_writers;
        for (std::size_t thread = 0; thread < threads_.size(); ++thread) {
            const bool waits = readers_.count(thread) + writers_.count(thread) != 0;
            ASSERT_EQ(threads_[thread].is_idle(), !waits) << "thread " << thread;
        }
    }

    void release_all() {
        const std::size_t helper = any_idle_thread();
        while (model_.lock_count != 0 || !readers_.empty() || !writers_.empty()) {
            if (model_.lock_count == 0) {
                // Unlocks by other threads leave entries behind, which can free a recursive lock
                // without waking anybody; a read hold given back wakes them.
                _kivRWLocker* locker = locker_.get();
                model_.try_lock_read(static_cast<int>(helper));
                threads_[helper].start([locker] { return TryLockReadRWLocker(locker); });
                threads_[helper].result();
            }
            unlock(helper);
            check();
            if (testing::Test::HasFatalFailure()) {
                std::abort(); // threads that are stuck cannot be joined
            }
        }
    }

    std::mt19937 random_;
    owned_locker locker_;
    kiv_test::rw_locker_model model_;
    std::array<commanded_thread, 4> threads_;
    std::set<std::size_t> readers_; // threads that wait for a read hold
    std::set<std::size_t> writers_; // threads that wait for the write hold
};

void run_random_sessions(bool recursive) {
    for (unsigned int seed = 0; seed < 30; ++seed) {
        SCOPED_TRACE(seed);
        random_locker_session session(seed, recursive);
        for (int step = 0; step < 100 && !testing::Test::HasFatalFailure(); ++step) {
            session.step();
        }
        ASSERT_FALSE(testing::Test::HasFatalFailure());
    }
}

TEST(RWLocker, RandomSessionsAgreeWithALiteralModel) {
    run_random_sessions(/*recursive=*/false);
}

TEST(RWLocker, RandomSessionsOfARecursiveLockerAgreeWithALiteralModel) {
    run_random_sessions(/*recursive=*/true);
}

TEST(RWLocker, WritersExcludeEverybody) {
    constexpr int rounds = 3000;
    const owned_locker locker = new_locker();
    std::array<int, 2> guarded{0, 0}; // always equal under the lock
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                LockWriteRWLocker(locker.get());
                ++guarded[0];
                ++guarded[1];
                UnlockRWLocker(locker.get());
            }
        });
        threads.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                LockReadRWLocker(locker.get());
                EXPECT_EQ(guarded[0], guarded[1]);
                UnlockRWLocker(locker.get());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(guarded[0], 2 * rounds);
    EXPECT_EQ(counts_of(*locker), (counts{0, 0, 0}));
}

} // namespace
