#pragma once

#include <map>

namespace kiv_test {

/// The read/write locker's rules for threads that act strictly one after the other. Threads are
/// numbers; instead of waiting, an operation tells that it would.
class rw_locker_model {
public:
    enum class result { done, yes, no, waits };
    enum class wake_up { nobody, one_writer, all_readers };

    explicit rw_locker_model(bool recursive) : recursive_(recursive) {}

    int lock_count = 0;
    int waiting_readers = 0;
    int waiting_writers = 0;

    result lock_read(int thread) {
        if (recursive_ && reader_threads_.contains(thread)) {
            ++reader_threads_[thread];
            ++lock_count;
            return result::done;
        }
        if (lock_count < 0 || waiting_writers != 0) {
            ++waiting_readers;
            return result::waits;
        }
        if (recursive_) {
            reader_threads_.insert({thread, 1});
        }
        ++lock_count;
        return result::done;
    }

    result try_lock_read(int thread) {
        if (recursive_ && reader_threads_.contains(thread)) {
            ++reader_threads_[thread];
            ++lock_count;
            return result::yes;
        }
        if (lock_count < 0) {
            return result::no;
        }
        if (recursive_) {
            reader_threads_.insert({thread, 1});
        }
        ++lock_count;
        return result::no;
    }

    result lock_write(int thread) {
        if (recursive_ && writer_thread_ == thread) {
            --lock_count;
            return result::done;
        }
        if (lock_count != 0) {
            ++waiting_writers;
            return result::waits;
        }
        if (recursive_) {
            writer_thread_ = thread;
        }
        lock_count = -1;
        return result::done;
    }

    result try_lock_write(int thread) {
        if (recursive_ && writer_thread_ == thread) {
            --lock_count;
            return result::yes;
        }
        if (lock_count != 0) {
            return result::no;
        }
        if (recursive_) {
            writer_thread_ = thread;
        }
        lock_count = -1;
        return result::yes;
    }

    wake_up unlock(int thread) {
        if (lock_count == 0) {
            return wake_up::nobody;
        }
        if (lock_count > 0) {
            if (recursive_ && reader_threads_.contains(thread)) {
                --reader_threads_[thread];
                if (reader_threads_[thread] <= 0) {
                    reader_threads_.erase(thread);
                }
            }
            --lock_count;
            if (lock_count != 0) {
                return wake_up::nobody;
            }
        } else {
            ++lock_count;
            if (lock_count != 0) {
                return wake_up::nobody;
            }
            writer_thread_ = nobody;
        }
        if (waiting_writers != 0) {
            return wake_up::one_writer;
        }
        return waiting_readers != 0 ? wake_up::all_readers : wake_up::nobody;
    }

    /// A waiting reader wakes on the free lock and goes on.
    void reader_goes_on(int thread) {
        --waiting_readers;
        if (recursive_) {
            reader_threads_.insert({thread, 1});
        }
        ++lock_count;
    }

    /// A waiting writer wakes on the free lock and goes on.
    void writer_goes_on(int thread) {
        --waiting_writers;
        if (recursive_) {
            writer_thread_ = thread;
        }
        lock_count = -1;
    }

private:
    static constexpr int nobody = -1;

    bool recursive_;
    int writer_thread_ = nobody;
    std::map<int, int> reader_threads_;
};

} // namespace kiv_test
