/// \file
/// One kqueue and what to do when one of its descriptors is ready.
#pragma once

#include <functional>
#include <map>

namespace agent {

enum class readiness { readable, writable };

/// Waits for descriptors and calls their handlers, all in the calling thread.
///
/// A handler may watch, pause and forget any descriptor, its own included.
class event_loop {
public:
    using handler = std::function<void(readiness)>;

    /// Throws std::system_error when the system grants no queue.
    event_loop();
    ~event_loop();
    event_loop(const event_loop&) = delete;
    event_loop& operator=(const event_loop&) = delete;

    /// The kqueue's descriptor, for streams that register their own interest.
    int descriptor() const { return queue_; }

    /// Calls `on_ready` whenever `descriptor` can be read.
    ///
    /// \returns false when the system refuses; nothing is watched then.
    bool watch(int descriptor, handler on_ready);

    /// As `watch`, for a descriptor whose interest somebody else registers (a stream).
    void serve(int descriptor, handler on_ready);

    /// Stops and takes up again the watch for reading; the handler stays.
    void pause(int descriptor) const;
    void resume(int descriptor) const;

    /// Drops the handler. The queue itself forgets a descriptor when it is closed: close it next.
    void forget(int descriptor);

    /// Waits for at most `milliseconds` and handles what is ready. A signal ends the wait early.
    void run_once(int milliseconds);

private:
    int queue_;
    std::map<int, handler> handlers_;
};

} // namespace agent
