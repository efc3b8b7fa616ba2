#include "event_loop.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <system_error>
#include <utility>

#include <KivFramework/KivKqueue.h>
#include <unistd.h>

// Also what makes `struct kevent` the library's record here and the system's where it has one.
using namespace KivFramework;

namespace {

constexpr int most_events_at_once = 64;

bool change_read_interest(int queue, int descriptor, std::uint16_t flags) {
    struct kevent change {};
    EV_SET(&change, static_cast<std::uintptr_t>(descriptor), EVFILT_READ, flags, 0, 0, nullptr);
    return kevent(queue, &change, 1, nullptr, 0, nullptr) != -1;
}

} // namespace

agent::event_loop::event_loop() : queue_(kqueue()) {
    if (queue_ == -1) {
        throw std::system_error(errno, std::generic_category(), "kqueue");
    }
}

agent::event_loop::~event_loop() {
    ::close(queue_);
}

bool agent::event_loop::watch(int descriptor, handler on_ready) {
    if (!change_read_interest(queue_, descriptor, EV_ADD)) {
        return false;
    }
    serve(descriptor, std::move(on_ready));
    return true;
}

void agent::event_loop::serve(int descriptor, handler on_ready) {
    handlers_[descriptor] = std::move(on_ready);
}

void agent::event_loop::pause(int descriptor) const {
    change_read_interest(queue_, descriptor, EV_DELETE);
}

void agent::event_loop::resume(int descriptor) const {
    change_read_interest(queue_, descriptor, EV_ADD);
}

void agent::event_loop::forget(int descriptor) {
    handlers_.erase(descriptor);
}

void agent::event_loop::run_once(int milliseconds) {
    const struct timespec limit { milliseconds / 1000, milliseconds % 1000 * 1000000L };
    std::array<struct kevent, most_events_at_once> events{};
    const int count = kevent(queue_, nullptr, 0, events.data(), most_events_at_once, &limit);
    // A failed wait (a signal) leaves a count of -1: nothing to handle.
    for (int i = 0; i < count; ++i) {
        const struct kevent& event = events[static_cast<std::size_t>(i)];
        const auto found = handlers_.find(static_cast<int>(event.ident));
        if (found == handlers_.end()) {
            continue; // forgotten by the handler of an earlier event of this round
        }
        // A copy, because the handler may forget its own descriptor. A descriptor closed and
        // opened again within one round may see an event of its predecessor; all are
        // non-blocking, so that costs a read that finds nothing.
        const handler on_ready = found->second;
        on_ready(event.filter == EVFILT_WRITE ? readiness::writable : readiness::readable);
    }
}
