#include "KivFramework/internal/line_handover.h"

#include "KivFramework/internal/mutex_guard.h"

#include <cstddef>
#include <cstdint>
#include <ctime>

#include <sched.h>

namespace KivFramework::internal {
namespace {

constexpr std::size_t most_waiting = 256;
// A sleeping writer is woken this early, so that it has begun before producers must wait for it.
constexpr std::size_t enough_to_wake = 64;
// Strings that grew beyond this are not kept for later lines.
constexpr std::size_t most_kept_capacity = 1024;

// Whoever waits for the other side stays awake this long before it sleeps; the writer that held
// producers up goes on when so many lines have come.
constexpr std::int64_t linger_ns = 50'000;
constexpr std::size_t worth_a_pass = 16;

constexpr std::int64_t idle_ns = 200'000'000;
constexpr std::int64_t ns_per_second = 1'000'000'000;

std::int64_t monotonic_ns() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * ns_per_second + now.tv_nsec;
}

timespec idle_deadline() {
    const std::int64_t deadline = monotonic_ns() + idle_ns;
    timespec split{};
    // The clock counts from the start of the system, so its seconds fit 32 bits as well.
    split.tv_sec = static_cast<decltype(split.tv_sec)>(deadline / ns_per_second);
    split.tv_nsec = static_cast<decltype(split.tv_nsec)>(deadline % ns_per_second);
    return split;
}

} // namespace

line_handover::line_handover(pthread_mutex_t* lock, pthread_cond_t* pass_end)
    : lock_(lock), pass_end_(pass_end) {
    pthread_condattr_t attributes;
    // None of these can fail on Linux.
    pthread_condattr_init(&attributes);
    // A wall clock set back must not prolong the writer's sleep.
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&wake_, &attributes);
    pthread_condattr_destroy(&attributes);
}

line_handover::~line_handover() {
    pthread_cond_destroy(&wake_);
}

void line_handover::append(line_list& waiting, std::string_view line) {
    const mutex_guard guard(lock_);
    if (waiting.size() >= most_waiting) {
        wait_for_end_of(passes_ended_ + 1);
    }
    add_to(waiting, line);
    waiting_.store(waiting.size(), std::memory_order_relaxed);
    if (writer_sleeps_ && waiting.size() >= enough_to_wake) {
        wake_writer_locked();
    }
}

void line_handover::flush() {
    const mutex_guard guard(lock_);
    // A pass that runs already may have begun before the last lines came.
    wait_for_end_of(passes_begun_ + 1);
}

void line_handover::begin_pass(line_list& waiting, line_list& batch) {
    const mutex_guard guard(lock_);
    batch.swap(waiting);
    waiting_.store(0, std::memory_order_relaxed);
    ++passes_begun_;
}

void line_handover::end_pass(line_list& batch) {
    batch.remove_if([](const std::string& line) { return line.capacity() > most_kept_capacity; });
    const mutex_guard guard(lock_);
    spare_.splice(spare_.begin(), batch);
    ++passes_ended_;
    held_producers_up_ = producers_held_up_ > 0;
    // Before the lock is released, so that no waiter can miss it and wait for a writer that is
    // gone.
    pthread_cond_broadcast(pass_end_);
}

void line_handover::idle() {
    // Producers that were held up go on at once. To sleep before they do would cost both sides a
    // wake-up for every few hundred lines.
    if (held_producers_up_ && more_comes_soon()) {
        return;
    }
    const timespec deadline = idle_deadline();
    const mutex_guard guard(lock_);
    writer_sleeps_ = true;
    if (!woken_) {
        // Waking early, for whatever reason, costs one pass over nothing.
        pthread_cond_timedwait(&wake_, lock_, &deadline);
    }
    writer_sleeps_ = false;
    woken_ = false;
}

void line_handover::wake_writer() {
    const mutex_guard guard(lock_);
    wake_writer_locked();
}

void line_handover::leave() {
    const mutex_guard guard(lock_);
    writer_present_ = false;
    pthread_cond_broadcast(pass_end_);
}

bool line_handover::more_comes_soon() const {
    const std::int64_t end = monotonic_ns() + linger_ns;
    while (waiting_.load(std::memory_order_relaxed) < worth_a_pass) {
        if (monotonic_ns() >= end) {
            return waiting_.load(std::memory_order_relaxed) != 0;
        }
        ::sched_yield();
    }
    return true;
}

// Most passes are over sooner than a sleep and the wake-up from it would be.
void line_handover::linger_for_end_of(std::uint64_t pass) const {
    const std::int64_t end = monotonic_ns() + linger_ns;
    while (passes_ended_.load(std::memory_order_relaxed) < pass && monotonic_ns() < end) {
        ::sched_yield();
    }
}

void line_handover::wait_for_end_of(std::uint64_t pass) {
    wake_writer_locked();
    ++producers_held_up_;
    pthread_mutex_unlock(lock_);
    linger_for_end_of(pass);
    pthread_mutex_lock(lock_);
    while (writer_present_ && passes_ended_ < pass) {
        pthread_cond_wait(pass_end_, lock_);
    }
    --producers_held_up_;
}

void line_handover::wake_writer_locked() {
    if (writer_sleeps_ && !woken_) {
        pthread_cond_signal(&wake_);
    }
    woken_ = true;
}

void line_handover::add_to(line_list& waiting, std::string_view line) {
    line_list added;
    if (spare_.empty()) {
        added.emplace_back();
    } else {
        added.splice(added.begin(), spare_, spare_.begin());
    }
    std::string& copy = added.front();
    copy.reserve(line.size() + 1); // the writer adds a line break without allocating
    copy.assign(line);
    waiting.splice(waiting.end(), added);
}

} // namespace KivFramework::internal
