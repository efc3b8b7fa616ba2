/// \file
/// `kqueue` and `kevent` for hosts on systems that have none.
///
/// On a system with `<sys/event.h>` these are the system's own. Host code that says `using
/// namespace KivFramework;` and writes the names unqualified is the same everywhere.
#pragma once

#include "KivFramework/KivExport.h"

#if defined(__APPLE__) || defined(__FreeBSD__) || defined(__NetBSD__) || defined(__OpenBSD__) ||   \
    defined(__DragonFly__)

#include <sys/event.h>
#include <sys/time.h>
#include <sys/types.h>

namespace KivFramework {

using ::kevent;
using ::kqueue;

} // namespace KivFramework

#else

#include <cstdint>
#include <ctime>

namespace KivFramework {

/// Filter: something can be read, or the end has been reached.
constexpr std::int16_t EVFILT_READ = -1;
/// Filter: something can be written, or the other side no longer reads.
constexpr std::int16_t EVFILT_WRITE = -2;

/// Change: adds the filter, or gives the one that is there new `udata` and flags.
constexpr std::uint16_t EV_ADD = 0x0001;
/// Change: deletes the filter.
constexpr std::uint16_t EV_DELETE = 0x0002;
/// Change, with `EV_ADD`: the filter is deleted when its first event is delivered.
constexpr std::uint16_t EV_ONESHOT = 0x0010;
/// Event: a change failed; `data` holds the error number. Ignored in changes.
constexpr std::uint16_t EV_ERROR = 0x4000;
/// Event: the other side is gone. Bytes may still be there to read. Ignored in changes.
constexpr std::uint16_t EV_EOF = 0x8000;

/// A change to a queue, or an event that it delivers. The caller's in either role.
struct kevent {
    std::uintptr_t ident; ///< a descriptor
    std::int16_t filter;  ///< `EVFILT_READ` or `EVFILT_WRITE`
    std::uint16_t flags;  ///< `EV_` bits
    std::uint32_t fflags; ///< not looked at in changes, 0 in events, also with `EV_EOF`
    std::intptr_t data;   ///< not looked at in changes; see `kevent` for events
    void* udata;          ///< kept with the filter and handed back with its events
};

/// Fills in a record.
inline void EV_SET(struct kevent* event, std::uintptr_t ident, std::int16_t filter,
                   std::uint16_t flags, std::uint32_t fflags, std::intptr_t data, void* udata) {
    event->ident = ident;
    event->filter = filter;
    event->flags = flags;
    event->fflags = fflags;
    event->data = data;
    event->udata = udata;
}

/// Makes a queue without filters.
///
/// The queue ends when its descriptor is closed; what it holds is freed by then or, at the latest,
/// while further queues are made. It is known by this one number in the process that made it: a
/// duplicate of the descriptor is no queue.
///
/// \returns the queue's descriptor, close-on-exec, the caller's until `close`; -1 when there is
///          none to be had (`errno` tells why: `ENOMEM` without memory, others from the system).
///
/// Threads: may be called from any thread.
KIV_API int kqueue();

// The function and the record share their name, as on every system that has them.
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
#endif

/// Changes the filters of a queue, then waits for events of those that it has.
///
/// The two filters of a descriptor are independent, each with its own `udata`. They are
/// level-triggered: an event comes again while its reason lasts, until the filter is deleted, or
/// once with `EV_ONESHOT`. Closing a descriptor forgets its filters, duplicates or not, and its
/// number may come back as another file. Regular files and directories, which are always ready,
/// cannot be watched (`EPERM`).
///
/// \code
/// struct kevent event;
/// if (kevent(queue, nullptr, 0, &event, 1, nullptr) != 1) {
///     continue; // interrupted by a signal
/// }
/// auto* stream = static_cast<kivSocketStream*>(event.udata);
/// \endcode
///
/// A change that fails becomes an event, the change with `EV_ERROR` as its only flag and the error
/// number in `data`: `ENOENT` no such filter to delete, `EBADF` no open descriptor, `EINVAL`
/// unknown filter or flags, or not exactly one of `EV_ADD` and `EV_DELETE`, `ENOMEM` no memory for
/// the filter, others from the system.
/// With such events the call does not wait for more. A failed change that finds no room ends the
/// call with its error; those after it are not made.
///
/// `data` of an event holds, for reading, the number of bytes that wait (1 where the system does
/// not count in bytes, as for a listener); for writing, a number worth trying that a ready pipe
/// always takes, not the true room. `EV_EOF` comes with `EVFILT_READ` when the peer will send no
/// more, and with both when the connection is gone or the socket never had one. The socket's
/// pending error stays where it is, for the host's next call on the socket.
///
/// \param kq            from `kqueue`.
/// \param changes       `change_count` changes, made in their order.
/// \param events        takes up to `event_count` events, at most 256 of them in one call; the rest
///                      comes with the next calls, no descriptor before all others had their turn.
///                      It may be the array of the changes. With a count of 0 the call does not
///                      wait.
/// \param timeout       the most to wait; zero only looks, null waits for ever.
/// \returns the number of events, 0 when the time passed; -1 on failure (`errno` tells why: `EBADF`
///          not a queue, `EINVAL` negative count or invalid time, `EFAULT` missing array, `EINTR`
///          interrupted by a signal during the wait, with the changes made, or the error of a
///          change). `errno` changes only then.
///
/// Threads: any number of threads may change and wait at once; a wait sees the changes of others.
/// An `EV_ONESHOT` filter is delivered to one of them.
KIV_API int kevent(int kq, const struct kevent* changes, int change_count, struct kevent* events,
                   int event_count, const struct timespec* timeout);
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

} // namespace KivFramework

#endif
