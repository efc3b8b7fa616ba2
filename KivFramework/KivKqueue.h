/// \file
/// `kqueue` and `kevent` for hosts on systems that have none.
#pragma once

#include "KivFramework/KivExport.h"

#if defined(__APPLE__) || defined(__FreeBSD__) || defined(__NetBSD__) || defined(__OpenBSD__) ||   \
    defined(__DragonFly__)

#include <sys/event.h>

#else

#include <cstdint>

#include <time.h>

namespace KivFramework {

constexpr std::int16_t EVFILT_READ = -1;
constexpr std::int16_t EVFILT_WRITE = -2;

constexpr std::uint16_t EV_ADD = 0x0001;
constexpr std::uint16_t EV_DELETE = 0x0002;
constexpr std::uint16_t EV_ONESHOT = 0x0010;
constexpr std::uint16_t EV_ERROR = 0x4000;
constexpr std::uint16_t EV_EOF = 0x8000;

struct kevent {
    std::uintptr_t ident;
    std::int16_t filter;
    std::uint16_t flags;
    std::uint32_t fflags;
    std::intptr_t data;
    void* udata;
};

inline void EV_SET(struct kevent* event, std::uintptr_t ident, std::int16_t filter,
                   std::uint16_t flags, std::uint32_t fflags, std::intptr_t data, void* udata) {
    event->ident = ident;
    event->filter = filter;
    event->flags = flags;
    event->fflags = fflags;
    event->data = data;
    event->udata = udata;
}

KIV_API int kqueue();
// The function and the record share their name, as on every system that has them.
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
#endif
KIV_API int kevent(int kq, const struct kevent* changes, int change_count, struct kevent* events,
                   int event_count, const struct timespec* timeout);
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

} // namespace KivFramework

#endif
