// A queue is an epoll set with one entry per watched descriptor. What the set cannot do decides the
// rest:
//
// - An entry has one mask and one word of data, so the two watches of a descriptor and their user
//   data are kept here, by descriptor number.
// - An entry disappears silently with its open file, not with its descriptor: a number may come
//   back as another file, and a file with a second descriptor (dup, fork) goes on reporting under
//   a number that was closed. So every entry is armed for one event, and each event re-arms its
//   entry before it is believed: that succeeds only if the number still means the file of the
//   entry. It makes the entry level-triggered again, and an entry that nobody can reach any more
//   falls silent instead of waking every wait.
#include "KivFramework/platform/event_queue.h"

#include "KivFramework/internal/unique_fd.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <new>
#include <utility>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace KivFramework::platform {
namespace {

using internal::unique_fd;

// Fetched by one wait at most; the rest comes with the next one.
constexpr std::size_t batch_size = 256;

constexpr std::uint32_t read_events = EPOLLIN | EPOLLRDHUP;
constexpr std::uint32_t write_events = EPOLLOUT;
// Reported whether asked for or not.
constexpr std::uint32_t unasked_events = EPOLLERR | EPOLLHUP;

constexpr long ns_per_second = 1000000000;

readiness other(readiness kind) {
    return kind == readiness::read ? readiness::write : readiness::read;
}

int result_of(int call_result) {
    return call_result == -1 ? errno : 0;
}

// Asks about a descriptor that its user may be closing in another thread. The kernel puts the two
// in order, and a late question is told so; but the thread sanitizer, which stands in the usual
// functions, would call every such close a race of the user's.
template <typename... arguments>
int ask(long number, arguments... values) {
    return static_cast<int>(::syscall(number, values...));
}

bool is_open(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) != -1;
}

std::uint64_t entry_data(int descriptor, std::uint32_t registration) {
    return std::uint64_t{registration} << 32 | static_cast<std::uint32_t>(descriptor);
}

timespec monotonic_now() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

// The part of a time limit that is left.
class countdown {
public:
    explicit countdown(const timespec* limit) : limit_(limit) {
        if (limit_ != nullptr) {
            left_ = *limit_;
            if (left_.tv_sec != 0 || left_.tv_nsec != 0) { // a poll needs no clock
                started_ = monotonic_now();
            }
        }
    }

    const timespec* left() const { return limit_ == nullptr ? nullptr : &left_; }

    void update() {
        if (limit_ == nullptr) {
            return;
        }
        const timespec now = monotonic_now();
        left_.tv_sec = limit_->tv_sec - (now.tv_sec - started_.tv_sec);
        left_.tv_nsec = limit_->tv_nsec - (now.tv_nsec - started_.tv_nsec);
        if (left_.tv_nsec < 0) {
            left_.tv_nsec += ns_per_second;
            --left_.tv_sec;
        } else if (left_.tv_nsec >= ns_per_second) {
            left_.tv_nsec -= ns_per_second;
            ++left_.tv_sec;
        }
        if (left_.tv_sec < 0) {
            left_ = timespec{};
        }
    }

private:
    const timespec* limit_;
    timespec started_{};
    timespec left_{};
};

// The limit in whole milliseconds for the older call, never shorter than it is; the longest that
// the call knows is more than three weeks.
int whole_milliseconds(const timespec* limit) {
    constexpr long ms_per_second = 1000;
    constexpr long ns_per_ms = ns_per_second / ms_per_second;
    if (limit == nullptr) {
        return -1; // no limit
    }
    if (limit->tv_sec >= INT_MAX / ms_per_second) {
        return INT_MAX;
    }
    return static_cast<int>(limit->tv_sec * ms_per_second +
                            (limit->tv_nsec + ns_per_ms - 1) / ns_per_ms);
}

// The call with a limit in nanoseconds, or the older one where the system has no other: before
// Linux 5.11, behind a filter of system calls, under valgrind.
int wait_for_events(int queue, epoll_event* events, int capacity, const timespec* limit) {
    static constinit std::atomic<bool> is_missing = false; // so that the system is asked once
    if (!is_missing.load(std::memory_order_relaxed)) {
        const int count = ::epoll_pwait2(queue, events, capacity, limit, nullptr);
        if (count != -1 || errno != ENOSYS) {
            return count;
        }
        is_missing.store(true, std::memory_order_relaxed);
    }
    return ::epoll_wait(queue, events, capacity, whole_milliseconds(limit));
}

bool is_socket(int descriptor) {
    int type = 0;
    socklen_t size = sizeof(type);
    return ask(SYS_getsockopt, descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0;
}

// Whether events say that the other side is gone. None of the questions asked here takes a socket's
// pending error away, which belongs to the user's next call.
bool tells_end(const ready_event& event, std::uint32_t events) {
    if ((events & EPOLLHUP) != 0) {
        return true;
    }
    if (event.kind == readiness::read) {
        return (events & EPOLLRDHUP) != 0;
    }
    // A pipe without readers reports an error alone. So does a datagram socket with an error to
    // fetch, which goes on afterwards.
    return (events & EPOLLERR) != 0 && !is_socket(event.descriptor);
}

std::intptr_t amount_of(const ready_event& event) {
    if (event.kind == readiness::write) {
        // What a ready pipe takes at least. The true room would cost two more calls per event, and
        // a non-blocking write finds it out anyway.
        return PIPE_BUF;
    }
    int bytes = 0;
    if (ask(SYS_ioctl, event.descriptor, FIONREAD, &bytes) == 0) {
        return bytes;
    }
    // A listener, a timer or the like: something is there, and it is not counted in bytes.
    return event.ended ? 0 : 1;
}

// The queues by descriptor number, in chunks that come into being with their first queue. Nothing
// is ever taken out, so that looking one up needs no lock.
constexpr std::size_t chunk_size = 1024;
constexpr std::size_t chunk_count = 4096;
using queue_chunk = std::array<std::atomic<event_queue*>, chunk_size>;

constinit std::array<std::atomic<queue_chunk*>, chunk_count> queue_chunks{};

// Guards the making of queues: additions to the chunks and what follows.
constinit std::mutex making_mutex;
constinit std::uint64_t last_opening = 0;
// The queue of the ring of all queues that was last looked at in search for closed ones.
constinit event_queue* last_checked = nullptr;

} // namespace

void event_queue::descriptor_watches::forget() {
    by_kind = {};
    ++registration;
}

// The thread may be cancelled in the very moment in which the kernel hands it events. They are lost
// with it and their entries stay disarmed, so they are armed again on the way out.
class event_queue::rearm_when_cancelled {
public:
    explicit rearm_when_cancelled(event_queue& queue) : queue_(&queue) {}
    ~rearm_when_cancelled() {
        if (queue_ != nullptr) {
            queue_->rearm_all();
        }
    }
    rearm_when_cancelled(const rearm_when_cancelled&) = delete;
    rearm_when_cancelled& operator=(const rearm_when_cancelled&) = delete;

    void dismiss() { queue_ = nullptr; }

private:
    event_queue* queue_;
};

int event_queue::open() {
    unique_fd descriptor(::epoll_create1(EPOLL_CLOEXEC));
    if (!descriptor.valid()) {
        return -1;
    }
    if (static_cast<std::size_t>(descriptor.get()) >= chunk_size * chunk_count) {
        errno = EMFILE;
        return -1;
    }
    const std::lock_guard making(making_mutex);
    event_queue* const queue = at(descriptor.get());
    if (queue == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    queue->become(++last_opening);
    clear_closed_queues(descriptor.get());
    return descriptor.release();
}

event_queue* event_queue::find(int descriptor) {
    if (descriptor < 0 || static_cast<std::size_t>(descriptor) >= chunk_size * chunk_count) {
        return nullptr;
    }
    const auto number = static_cast<std::size_t>(descriptor);
    queue_chunk* chunk = queue_chunks[number / chunk_size].load(std::memory_order_acquire);
    if (chunk == nullptr) {
        return nullptr;
    }
    event_queue* queue = (*chunk)[number % chunk_size].load(std::memory_order_acquire);
    return queue != nullptr && queue->opening_.load() != 0 ? queue : nullptr;
}

// The object of a descriptor number, null without memory for it; `making_mutex` is held.
event_queue* event_queue::at(int descriptor) {
    const auto number = static_cast<std::size_t>(descriptor);
    std::atomic<queue_chunk*>& chunk = queue_chunks[number / chunk_size];
    if (chunk.load() == nullptr) {
        chunk.store(new (std::nothrow) queue_chunk{}, std::memory_order_release);
        if (chunk.load() == nullptr) {
            return nullptr;
        }
    }
    std::atomic<event_queue*>& place = (*chunk.load())[number % chunk_size];
    if (place.load() == nullptr) {
        std::unique_ptr<event_queue> queue(new (std::nothrow) event_queue(descriptor));
        if (queue == nullptr) {
            return nullptr;
        }
        if (last_checked == nullptr) {
            last_checked = queue.get();
            queue->next_in_ring_ = queue.get();
        } else {
            queue->next_in_ring_ = std::exchange(last_checked->next_in_ring_, queue.get());
        }
        place.store(queue.release(), std::memory_order_release);
    }
    return place.load();
}

// Frees what closed queues hold whose number has not come back. Each new queue looks at two older
// ones, so that closed queues never outnumber open ones for long, at a constant price.
void event_queue::clear_closed_queues(int newest) {
    constexpr int looked_at = 2;
    for (int i = 0; i < looked_at; ++i) {
        last_checked = last_checked->next_in_ring_;
        if (last_checked->is_closed(newest)) {
            last_checked->become(0);
        }
    }
}

// Starts over as another queue of the same number, or as none.
void event_queue::become(std::uint64_t opening) {
    std::unordered_map<int, descriptor_watches> old;
    const std::lock_guard guard(mutex_);
    opening_.store(opening);
    descriptors_.swap(old);
}

bool event_queue::is_closed(int newest) const {
    if (opening_.load() == 0 || queue_ == newest) {
        return false;
    }
    // A queue answers that it does not watch the newest queue; anything else is no queue.
    return result_of(ask(SYS_epoll_ctl, queue_, EPOLL_CTL_DEL, newest, nullptr)) != ENOENT;
}

bool event_queue::is_gone(int descriptor, int error) const {
    // Only what is no queue, or the queue itself, makes a change of a watch invalid.
    return error == EINVAL ? descriptor != queue_ : !is_open(queue_);
}

int event_queue::control(int operation, int descriptor, const descriptor_watches& watches) const {
    epoll_event event{};
    event.events = EPOLLONESHOT;
    if (watches.by_kind[0].active) {
        event.events |= read_events;
    }
    if (watches.by_kind[1].active) {
        event.events |= write_events;
    }
    event.data.u64 = entry_data(descriptor, watches.registration);
    return result_of(ask(SYS_epoll_ctl, queue_, operation, descriptor, &event));
}

int event_queue::add(int descriptor, readiness kind, bool one_shot, void* user_data) {
    try {
        return try_add(descriptor, kind, one_shot, user_data);
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

int event_queue::try_add(int descriptor, readiness kind, bool one_shot, void* user_data) {
    const std::lock_guard guard(mutex_);
    const auto [place, is_new] = descriptors_.try_emplace(descriptor);
    descriptor_watches& watches = place->second;

    if (watches.any()) {
        // Asked of the kernel even when nothing changes, for only the kernel knows whether the
        // number still means the same file.
        descriptor_watches changed = watches;
        changed.of(kind) = {user_data, true, one_shot};
        const int error = control(EPOLL_CTL_MOD, descriptor, changed);
        if (error == 0) {
            watches = changed;
            return 0;
        }
        watches.forget();
        if (error != ENOENT) {
            return error;
        }
    }

    watches.of(kind) = {user_data, true, one_shot};
    int error = control(EPOLL_CTL_ADD, descriptor, watches);
    if (error == EEXIST) {
        // The number was closed and has come back to the same file, by way of a duplicate.
        error = control(EPOLL_CTL_MOD, descriptor, watches);
    }
    if (error != 0) {
        watches.forget();
        if (is_new) {
            descriptors_.erase(place);
        }
    }
    return error;
}

int event_queue::remove(int descriptor, readiness kind) {
    const std::lock_guard guard(mutex_);
    const auto place = descriptors_.find(descriptor);
    descriptor_watches none;
    descriptor_watches& watches = place == descriptors_.end() ? none : place->second;
    const bool was_active = std::exchange(watches.of(kind), {}).active;
    // Asked of the kernel even when there was no such watch, for only the kernel knows whether the
    // descriptor is open.
    const int error = control(watches.any() ? EPOLL_CTL_MOD : EPOLL_CTL_DEL, descriptor, watches);
    if (error != 0 || !watches.any()) {
        watches.forget();
    }
    if (error == 0) {
        return was_active ? 0 : ENOENT;
    }
    // A number that came back as a file without readiness has no watch either.
    return error == EPERM ? ENOENT : error;
}

int event_queue::wait(std::span<ready_event> ready, const timespec* timeout) {
    const std::uint64_t opening = opening_.load();
    countdown time(timeout);
    std::array<epoll_event, batch_size> fetched;
    const auto capacity = static_cast<int>(std::min(ready.size(), fetched.size()));
    while (true) {
        rearm_when_cancelled on_cancellation(*this);
        const int count = wait_for_events(queue_, fetched.data(), capacity, time.left());
        const int error = result_of(count);
        on_cancellation.dismiss();
        if (count <= 0) {
            // The number means no queue any more.
            return error == EINVAL ? -EBADF : -error;
        }

        std::size_t reported = 0;
        {
            const std::lock_guard guard(mutex_);
            if (opening_.load() != opening) {
                return -EBADF; // closed during the wait, and its number opened again
            }
            reported = collect({fetched.data(), static_cast<std::size_t>(count)}, ready);
        }
        for (ready_event& event : ready.first(reported)) {
            event.amount = amount_of(event);
        }
        if (reported != 0) {
            return static_cast<int>(reported);
        }
        time.update();
    }
}

// Turns what was fetched, never more than there is room, into reports. Every descriptor gets one
// place, and a second one only if that leaves one for all that follow: none starves.
std::size_t event_queue::collect(std::span<const epoll_event> fetched,
                                 std::span<ready_event> ready) {
    std::size_t used = 0;
    for (std::size_t i = 0; i < fetched.size(); ++i) {
        const std::size_t following = fetched.size() - i - 1;
        used += report(fetched[i], ready.subspan(used, ready.size() - used - following));
    }
    return used;
}

std::size_t event_queue::report(const epoll_event& event, std::span<ready_event> ready) {
    const auto descriptor = static_cast<int>(static_cast<std::uint32_t>(event.data.u64));
    const auto registration = static_cast<std::uint32_t>(event.data.u64 >> 32);
    const auto place = descriptors_.find(descriptor);
    if (place == descriptors_.end() || place->second.registration != registration) {
        return 0; // of an entry given up, which stays disarmed
    }
    descriptor_watches& watches = place->second;
    if (!watches.any()) {
        return 0;
    }

    descriptor_watches left = watches;
    std::size_t count = 0;
    for (const readiness kind : {watches.first, other(watches.first)}) {
        const std::uint32_t wanted = kind == readiness::read ? read_events : write_events;
        if (!watches.of(kind).active || (event.events & (wanted | unasked_events)) == 0) {
            continue;
        }
        if (count == ready.size()) {
            left.first = kind; // no room now, so the first next time
            break;
        }
        ready_event& next = ready[count++];
        next = {descriptor, kind, false, 0, watches.of(kind).user_data};
        next.ended = tells_end(next, event.events);
        if (watches.of(kind).one_shot) {
            left.of(kind) = {};
        }
    }

    const int error = control(left.any() ? EPOLL_CTL_MOD : EPOLL_CTL_DEL, descriptor, left);
    if (error != 0) {
        watches.forget(); // the descriptor was closed; whatever has its number now is not watched
        return 0;
    }
    watches = left;
    if (!watches.any()) {
        watches.forget();
    }
    return count;
}

void event_queue::rearm_all() {
    const std::lock_guard guard(mutex_);
    for (auto& [descriptor, watches] : descriptors_) {
        if (watches.any() && control(EPOLL_CTL_MOD, descriptor, watches) != 0) {
            watches.forget();
        }
    }
}

} // namespace KivFramework::platform
