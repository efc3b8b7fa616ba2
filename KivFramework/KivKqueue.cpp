#include "KivFramework/KivKqueue.h"

#include "KivFramework/platform/event_queue.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>

namespace KivFramework {
namespace {

using platform::event_queue;
using platform::readiness;
using platform::ready_event;

// Delivered by one call at most, which bounds its stack; the rest comes with the next call.
constexpr std::size_t most_events = 256;

// Gives `errno` back as it was found, unless the call fails.
class errno_keeper {
public:
    errno_keeper() : found_(errno) {}
    ~errno_keeper() { errno = found_; }
    errno_keeper(const errno_keeper&) = delete;
    errno_keeper& operator=(const errno_keeper&) = delete;

    // The result of a call that fails with `error`.
    int fail(int error) {
        found_ = error;
        return -1;
    }

private:
    int found_;
};

bool is_valid(const timespec& time) {
    constexpr long ns_per_second = 1000000000;
    return time.tv_sec >= 0 && time.tv_nsec >= 0 && time.tv_nsec < ns_per_second;
}

int check_arguments(const struct kevent* changes, int change_count, const struct kevent* events,
                    int event_count, const timespec* timeout) {
    if (change_count < 0 || event_count < 0) {
        return EINVAL;
    }
    if ((change_count > 0 && changes == nullptr) || (event_count > 0 && events == nullptr)) {
        return EFAULT;
    }
    // A call that fetches nothing does not look at the time.
    return event_count > 0 && timeout != nullptr && !is_valid(*timeout) ? EINVAL : 0;
}

int check_change(const struct kevent& change) {
    constexpr unsigned int known_flags = EV_ADD | EV_DELETE | EV_ONESHOT | EV_EOF | EV_ERROR;
    const bool adds = (change.flags & EV_ADD) != 0;
    const bool deletes = (change.flags & EV_DELETE) != 0;
    if ((change.filter != EVFILT_READ && change.filter != EVFILT_WRITE) ||
        (change.flags & ~known_flags) != 0 || adds == deletes) {
        return EINVAL;
    }
    return change.ident > static_cast<std::uintptr_t>(INT_MAX) ? EBADF : 0;
}

int apply_change(event_queue& queue, const struct kevent& change) {
    const auto descriptor = static_cast<int>(change.ident);
    const readiness kind = change.filter == EVFILT_READ ? readiness::read : readiness::write;
    if ((change.flags & EV_ADD) != 0) {
        return queue.add(descriptor, kind, (change.flags & EV_ONESHOT) != 0, change.udata);
    }
    return queue.remove(descriptor, kind);
}

struct kevent event_of(const ready_event& ready) {
    struct kevent event {};
    event.ident = static_cast<std::uintptr_t>(ready.descriptor);
    event.filter = ready.kind == readiness::read ? EVFILT_READ : EVFILT_WRITE;
    event.flags = ready.ended ? EV_EOF : std::uint16_t{0};
    event.data = ready.amount;
    event.udata = ready.user_data;
    return event;
}

} // namespace
} // namespace KivFramework

using namespace KivFramework;

int KivFramework::kqueue() {
    errno_keeper keeper;
    const int descriptor = event_queue::open();
    return descriptor == -1 ? keeper.fail(errno) : descriptor;
}

int KivFramework::kevent(int kq, const struct kevent* changes, int change_count,
                         struct kevent* events, int event_count, const struct timespec* timeout) {
    errno_keeper keeper;
    const int invalid = check_arguments(changes, change_count, events, event_count, timeout);
    if (invalid != 0) {
        return keeper.fail(invalid);
    }
    event_queue* queue = event_queue::find(kq);
    if (queue == nullptr) {
        return keeper.fail(EBADF);
    }

    int failed_changes = 0;
    for (int i = 0; i < change_count; ++i) {
        // A copy, because the failure of an earlier change may be about to overwrite it.
        struct kevent change = changes[i];
        int error = check_change(change);
        if (error == 0) {
            error = apply_change(*queue, change);
            if (error == 0) {
                continue;
            }
            if (queue->is_gone(static_cast<int>(change.ident), error)) {
                return keeper.fail(EBADF);
            }
        }
        if (failed_changes == event_count) {
            return keeper.fail(error);
        }
        change.flags = EV_ERROR;
        change.data = error;
        events[failed_changes++] = change;
    }
    // Whoever is told about failed changes is not kept waiting.
    if (failed_changes != 0 || event_count == 0) {
        return failed_changes;
    }

    std::array<ready_event, most_events> ready;
    const std::size_t room = std::min(ready.size(), static_cast<std::size_t>(event_count));
    const int count = queue->wait({ready.data(), room}, timeout);
    if (count < 0) {
        return keeper.fail(-count);
    }
    std::transform(ready.begin(), ready.begin() + count, events, event_of);
    return count;
}
