#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <span>
#include <unordered_map>

#include <sys/epoll.h>

namespace KivFramework::platform {

enum class readiness : std::uint8_t { read, write };

/// One report of a queue: a descriptor is ready in one of the two ways.
struct ready_event {
    int descriptor;
    readiness kind;
    bool ended;           ///< the other side is gone
    std::intptr_t amount; ///< bytes to read, or worth trying to write
    void* user_data;      ///< what the watch was added with
};

/// Watches descriptors for readiness, level-triggered; reading and writing of one descriptor are
/// two independent watches.
///
/// Users know a queue only by its descriptor, which plain `close` ends unseen. A queue object
/// therefore belongs to a descriptor number, lives as long as the process, and serves the queues
/// that are opened under its number one after the other.
///
/// Threads: every operation may be called from any thread, also during a wait.
class event_queue {
public:
    /// Makes a queue. \returns its descriptor, close-on-exec, the caller's to close; -1 when there
    /// is none to be had (`errno` tells why).
    static int open();

    /// The queue that was last opened under `descriptor`; null when there was none.
    static event_queue* find(int descriptor);

    /// Starts a watch, or gives one that is there its new data and way.
    ///
    /// \param one_shot  the watch ends with its first report.
    /// \returns 0 or the error number; `EPERM` for a file that has no readiness, a regular one;
    ///          `ENOMEM`.
    int add(int descriptor, readiness kind, bool one_shot, void* user_data);

    /// Ends a watch. \returns 0, `ENOENT` when there is no such watch, `EBADF`.
    int remove(int descriptor, readiness kind);

    /// Whether the queue's own number means nothing or something else by now.
    ///
    /// \param descriptor  whose watch could not be changed, which gave rise to the question.
    /// \param error       why it could not.
    bool is_gone(int descriptor, int error) const;

    /// Waits until something is ready.
    ///
    /// \param ready    takes the reports, at least one; what finds no room comes next time.
    /// \param timeout  the most to wait; null waits for ever.
    /// \returns the number of reports, 0 when the time passed, the negative error number otherwise.
    int wait(std::span<ready_event> ready, const timespec* timeout);

private:
    struct watch {
        void* user_data = nullptr;
        bool active = false;
        bool one_shot = false;
    };

    // The watches of one descriptor, which share the kernel's only entry for it.
    struct descriptor_watches {
        std::array<watch, 2> by_kind;
        // Raised whenever the kernel's entry is given up, so that late events of it are known.
        std::uint32_t registration = 0;
        // Whose turn it is when both are ready and one has room.
        readiness first = readiness::read;

        watch& of(readiness kind) { return by_kind[static_cast<std::size_t>(kind)]; }
        bool any() const { return by_kind[0].active || by_kind[1].active; }
        void forget();
    };

    class rearm_when_cancelled;

    explicit event_queue(int descriptor) : queue_(descriptor) {}
    static event_queue* at(int descriptor);
    static void clear_closed_queues(int newest);
    void become(std::uint64_t opening);
    bool is_closed(int newest) const;

    int try_add(int descriptor, readiness kind, bool one_shot, void* user_data);
    int control(int operation, int descriptor, const descriptor_watches& watches) const;
    std::size_t collect(std::span<const epoll_event> fetched, std::span<ready_event> ready);
    std::size_t report(const epoll_event& event, std::span<ready_event> ready);
    void rearm_all();

    const int queue_;
    event_queue* next_in_ring_ = nullptr;    // all queues form a ring
    std::atomic<std::uint64_t> opening_ = 0; // which queue of this number it is; 0: none
    std::mutex mutex_;                       // guards what follows
    std::unordered_map<int, descriptor_watches> descriptors_;
};

} // namespace KivFramework::platform
