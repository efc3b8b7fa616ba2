// The program interposes epoll_pwait2 and epoll_wait, so that a test can act in the very moment in
// which the system has handed events to a thread, and counts what is allocated.

#include "KivFramework/KivKqueue.h"
#include "KivFramework/internal/unique_fd.h"

#include "tests/support/allocation_count.h"
#include "tests/support/transfers.h"
#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// What to do in a wait that has just fetched events; done once.
std::atomic<void (*)()> after_fetch{nullptr};

// Whether the system is one without the call; and the limit that the older call was given then.
std::atomic<bool> is_older_system{false};
std::atomic<int> last_milliseconds{0};

void cancel_this_thread() {
    ::pthread_cancel(::pthread_self());
    ::pthread_testcancel();
}

int fetched(int count) {
    if (count > 0) {
        if (void (*const act)() = after_fetch.exchange(nullptr)) {
            act();
        }
    }
    return count;
}

} // namespace

extern "C" int epoll_pwait2(int queue, epoll_event* events, int room, const timespec* timeout,
                            const sigset_t* mask) {
    if (is_older_system) {
        errno = ENOSYS;
        return -1;
    }
    using call = int (*)(int, epoll_event*, int, const timespec*, const sigset_t*);
    static const auto next = reinterpret_cast<call>(::dlsym(RTLD_NEXT, "epoll_pwait2"));
    return fetched(next(queue, events, room, timeout, mask));
}

extern "C" int epoll_wait(int queue, epoll_event* events, int room, int milliseconds) {
    last_milliseconds = milliseconds;
    static const auto next =
        reinterpret_cast<decltype(&epoll_wait)>(::dlsym(RTLD_NEXT, "epoll_wait"));
    return fetched(next(queue, events, room, milliseconds));
}

namespace {

using namespace KivFramework;
using internal::unique_fd;

constexpr timespec no_wait{0, 0};

// Two connected ends; what goes in at one comes out at the other.
struct ends {
    unique_fd near;
    unique_fd far;
};

ends socket_pair() {
    std::array<int, 2> sockets{-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sockets.data()), 0);
    return {unique_fd(sockets[0]), unique_fd(sockets[1])};
}

// The near end reads what is written to the far one.
ends pipe_pair() {
    std::array<int, 2> pipes{-1, -1};
    EXPECT_EQ(::pipe2(pipes.data(), O_NONBLOCK), 0);
    return {unique_fd(pipes[0]), unique_fd(pipes[1])};
}

unique_fd listener() {
    unique_fd socket(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(::listen(socket.get(), 5), 0);
    return socket;
}

unique_fd connected_to(const unique_fd& listening) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    EXPECT_EQ(::getsockname(listening.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    unique_fd socket(::socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(kiv_test::uninterrupted([&] {
                  return ::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), size);
              }),
              0);
    return socket;
}

ends tcp_pair() {
    const unique_fd listening = listener();
    unique_fd client = connected_to(listening);
    return {unique_fd(::accept(listening.get(), nullptr, nullptr)), std::move(client)};
}

void send_bytes(const unique_fd& to, const std::string& bytes) {
    EXPECT_TRUE(kiv_test::write_fully(to.get(), bytes.data(), bytes.size()));
}

std::string receive_bytes(const unique_fd& from) {
    // Waits for the first byte, and takes what has come with it.
    std::string bytes(1, '\0');
    bytes.resize(kiv_test::read_fully(from.get(), bytes.data(), 1));
    int more = 0;
    ::ioctl(from.get(), FIONREAD, &more);
    const std::size_t used = bytes.size();
    bytes.resize(used + static_cast<std::size_t>(more));
    bytes.resize(used + kiv_test::read_fully(from.get(), bytes.data() + used, bytes.size() - used));
    return bytes;
}

struct kevent change_of(int descriptor, std::int16_t filter, std::uint16_t flags,
                        void* udata = nullptr) {
    struct kevent change {};
    EV_SET(&change, static_cast<std::uintptr_t>(descriptor), filter, flags, 0, 0, udata);
    return change;
}

// 0, or the error number of a change without room for an error event.
int apply(int queue, const struct kevent& change) {
    return kevent(queue, &change, 1, nullptr, 0, nullptr) == 0 ? 0 : errno;
}

int add(int queue, int descriptor, std::int16_t filter, void* udata = nullptr) {
    return apply(queue, change_of(descriptor, filter, EV_ADD, udata));
}

int add_once(int queue, int descriptor, std::int16_t filter, void* udata = nullptr) {
    return apply(queue, change_of(descriptor, filter, EV_ADD | EV_ONESHOT, udata));
}

int drop(int queue, int descriptor, std::int16_t filter) {
    return apply(queue, change_of(descriptor, filter, EV_DELETE));
}

// Waits for one event, whatever signals arrive meanwhile.
int wait_for_event(const unique_fd& queue, struct kevent& event) {
    return kiv_test::uninterrupted(
        [&] { return kevent(queue.get(), nullptr, 0, &event, 1, nullptr); });
}

// What is ready now, as far as there is room.
std::vector<struct kevent> poll(int queue, int room = 16) {
    std::vector<struct kevent> events(static_cast<std::size_t>(room));
    const int count = kevent(queue, nullptr, 0, events.data(), room, &no_wait);
    EXPECT_GE(count, 0);
    events.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return events;
}

// Readable forms, so that expectations are literals.
std::string name_of(const struct kevent& event) {
    std::string name = event.filter == EVFILT_READ ? "read" : "write";
    if ((event.flags & EV_EOF) != 0) {
        name += " end";
    }
    if ((event.flags & EV_ERROR) != 0) {
        name += " error " + std::to_string(event.data);
    }
    return name;
}

std::multiset<std::string> names_of(const std::vector<struct kevent>& events) {
    std::multiset<std::string> names;
    for (const struct kevent& event : events) {
        names.insert(name_of(event));
    }
    return names;
}

std::multiset<std::string> poll_names(int queue, int room = 16) {
    return names_of(poll(queue, room));
}

using names = std::multiset<std::string>;

// An address to be recognised by, never looked into.
void* tag(std::uintptr_t number) {
    return reinterpret_cast<void*>(number); // NOLINT(performance-no-int-to-ptr): see above
}

TEST(Kqueue, DescriptorIsCloseOnExec) {
    const unique_fd queue(kqueue());
    EXPECT_EQ(::fcntl(queue.get(), F_GETFD), FD_CLOEXEC);
}

TEST(KeventRecord, HasItsFieldsInOrder) {
    constexpr std::size_t word = sizeof(void*);
    EXPECT_EQ(offsetof(struct kevent, ident), 0);
    EXPECT_EQ(offsetof(struct kevent, filter), word);
    EXPECT_EQ(offsetof(struct kevent, flags), word + 2);
    EXPECT_EQ(offsetof(struct kevent, fflags), word + 4);
    EXPECT_EQ(offsetof(struct kevent, data), word + 8);
    EXPECT_EQ(offsetof(struct kevent, udata), 2 * word + 8);
    EXPECT_EQ(sizeof(struct kevent), 3 * word + 8);
}

TEST(EvSet, FillsInEveryField) {
    struct kevent event {};
    EV_SET(&event, 7, EVFILT_WRITE, EV_ADD | EV_ONESHOT, 3, -5, &event);
    EXPECT_EQ(event.ident, 7U);
    EXPECT_EQ(event.filter, EVFILT_WRITE);
    EXPECT_EQ(event.flags, EV_ADD | EV_ONESHOT);
    EXPECT_EQ(event.fflags, 3U);
    EXPECT_EQ(event.data, -5);
    EXPECT_EQ(event.udata, &event);
}

TEST(Kqueue, SuccessLeavesErrnoAlone) {
    errno = 4711;
    const unique_fd queue(kqueue());
    EXPECT_EQ(errno, 4711);
}

TEST(Kevent, ReportsReadableBytesUntilTheyAreRead) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ, tag(7)), 0);
    EXPECT_EQ(poll(queue.get()).size(), 0U);

    send_bytes(pair.far, "hello");
    for (int i = 0; i < 3; ++i) {
        const auto events = poll(queue.get());
        ASSERT_EQ(events.size(), 1U);
        EXPECT_EQ(events[0].ident, static_cast<std::uintptr_t>(pair.near.get()));
        EXPECT_EQ(events[0].filter, EVFILT_READ);
        EXPECT_EQ(events[0].flags, 0);
        EXPECT_EQ(events[0].fflags, 0U);
        EXPECT_EQ(events[0].data, 5);
        EXPECT_EQ(events[0].udata, tag(7));
    }

    EXPECT_EQ(receive_bytes(pair.near), "hello");
    EXPECT_EQ(poll(queue.get()).size(), 0U);
    send_bytes(pair.far, "again");
    EXPECT_EQ(poll_names(queue.get()), names{"read"});
}

TEST(Kevent, BothFiltersOfADescriptorKeepTheirOwnUdata) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ, tag(1)), 0);
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_WRITE, tag(2)), 0);
    send_bytes(pair.far, "x");
    std::map<std::int16_t, void*> udata;
    for (const struct kevent& event : poll(queue.get())) {
        udata[event.filter] = event.udata;
    }
    EXPECT_EQ(udata,
              (std::map<std::int16_t, void*>{{EVFILT_READ, tag(1)}, {EVFILT_WRITE, tag(2)}}));
}

TEST(Kevent, BothFiltersReadyWithRoomForOneEventTakeTurns) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ), 0);
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
    send_bytes(pair.far, "x");
    names seen;
    for (int i = 0; i < 4; ++i) {
        const auto events = poll(queue.get(), 1);
        ASSERT_EQ(events.size(), 1U);
        seen.insert(name_of(events[0]));
    }
    EXPECT_EQ(seen, (names{"read", "read", "write", "write"}));
}

TEST(Kevent, BothOneShotFiltersReadyWithRoomForOneEventAreBothDelivered) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add_once(queue.get(), pair.near.get(), EVFILT_READ), 0);
    ASSERT_EQ(add_once(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
    send_bytes(pair.far, "x");
    names seen;
    for (int i = 0; i < 3; ++i) {
        seen.merge(poll_names(queue.get(), 1));
    }
    EXPECT_EQ(seen, (names{"read", "write"}));
}

TEST(Kevent, NoDescriptorStarvesWhenMoreAreReadyThanThereIsRoom) {
    constexpr std::size_t pair_count = 10;
    const unique_fd queue(kqueue());
    std::vector<ends> pairs(pair_count);
    for (ends& pair : pairs) {
        pair = socket_pair();
        ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ), 0);
        ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
        send_bytes(pair.far, "x");
    }
    for (const int room : {1, 2, 3, 7}) {
        std::set<std::pair<std::uintptr_t, std::int16_t>> seen;
        for (int call = 0; call < 20; ++call) { // 20 filters, and at least one report each time
            for (const struct kevent& event : poll(queue.get(), room)) {
                seen.emplace(event.ident, event.filter);
            }
        }
        EXPECT_EQ(seen.size(), 2 * pair_count) << "with room for " << room;
    }
}

TEST(Kevent, OneShotIsPerFilter) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ), 0);
    ASSERT_EQ(add_once(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
    send_bytes(pair.far, "x");
    EXPECT_EQ(poll_names(queue.get()), (names{"read", "write"}));
    EXPECT_EQ(poll_names(queue.get()), names{"read"});
    EXPECT_EQ(drop(queue.get(), pair.near.get(), EVFILT_WRITE), ENOENT);
    EXPECT_EQ(drop(queue.get(), pair.near.get(), EVFILT_READ), 0);
}

TEST(Kevent, OneShotCanBeAddedAgainAfterItsEvent) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(add_once(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
        EXPECT_EQ(poll_names(queue.get()), names{"write"});
        EXPECT_EQ(poll_names(queue.get()), names{});
    }
}

TEST(Kevent, AddOfAnExistingFilterReplacesUdataAndOneShot) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add_once(queue.get(), pair.near.get(), EVFILT_WRITE, tag(1)), 0);
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_WRITE, tag(2)), 0);
    for (int i = 0; i < 2; ++i) { // no longer one-shot
        const auto events = poll(queue.get());
        ASSERT_EQ(events.size(), 1U);
        EXPECT_EQ(events[0].udata, tag(2));
    }
    ASSERT_EQ(add_once(queue.get(), pair.near.get(), EVFILT_WRITE, tag(3)), 0);
    const auto events = poll(queue.get());
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].udata, tag(3));
    EXPECT_EQ(poll_names(queue.get()), names{});
}

TEST(Kevent, DeleteEndsOneFilterAndLeavesTheOther) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ), 0);
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
    send_bytes(pair.far, "x");
    ASSERT_EQ(drop(queue.get(), pair.near.get(), EVFILT_READ), 0);
    EXPECT_EQ(poll_names(queue.get()), names{"write"});
    ASSERT_EQ(drop(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
    EXPECT_EQ(poll_names(queue.get()), names{});
}

TEST(Kevent, FailedChangesReturnTheirErrorWhenThereIsNoRoom) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    const int closed = ends(socket_pair()).near.get();
    const struct {
        const char* what;
        struct kevent change;
        int error;
    } cases[] = {
        {"delete of a missing filter", change_of(pair.near.get(), EVFILT_READ, EV_DELETE), ENOENT},
        {"add of a closed descriptor", change_of(closed, EVFILT_READ, EV_ADD), EBADF},
        {"delete of a closed descriptor", change_of(closed, EVFILT_READ, EV_DELETE), EBADF},
        {"negative descriptor", change_of(-1, EVFILT_READ, EV_ADD), EBADF},
        {"unknown filter", change_of(pair.near.get(), -3, EV_ADD), EINVAL},
        {"no filter", change_of(pair.near.get(), 0, EV_ADD), EINVAL},
        {"unknown flag", change_of(pair.near.get(), EVFILT_READ, EV_ADD | 0x20), EINVAL},
        {"neither add nor delete", change_of(pair.near.get(), EVFILT_READ, EV_ONESHOT), EINVAL},
        {"add and delete", change_of(pair.near.get(), EVFILT_READ, EV_ADD | EV_DELETE), EINVAL},
        {"the queue itself", change_of(queue.get(), EVFILT_READ, EV_ADD), EINVAL},
    };
    for (const auto& [what, change, error] : cases) {
        SCOPED_TRACE(what);
        EXPECT_EQ(apply(queue.get(), change), error);
    }
    EXPECT_EQ(poll_names(queue.get()), names{});
}

TEST(Kevent, FailedChangesBecomeErrorEventsWhenThereIsRoomAndTheOthersAreMade) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    const std::array<struct kevent, 3> changes{
        change_of(pair.near.get(), EVFILT_READ, EV_DELETE, tag(5)),
        change_of(pair.near.get(), EVFILT_WRITE, EV_ADD, tag(6)),
        change_of(pair.near.get(), -9, EV_ADD, tag(7)),
    };
    std::array<struct kevent, 3> events{};
    // It does not wait, although the time limit is for ever, and fetches nothing.
    ASSERT_EQ(kevent(queue.get(), changes.data(), 3, events.data(), 3, nullptr), 2);
    EXPECT_EQ(events[0].ident, static_cast<std::uintptr_t>(pair.near.get()));
    EXPECT_EQ(events[0].filter, EVFILT_READ);
    EXPECT_EQ(events[0].flags, EV_ERROR);
    EXPECT_EQ(events[0].data, ENOENT);
    EXPECT_EQ(events[0].udata, tag(5));
    EXPECT_EQ(events[1].flags, EV_ERROR);
    EXPECT_EQ(events[1].data, EINVAL);
    EXPECT_EQ(events[1].udata, tag(7));
    EXPECT_EQ(poll_names(queue.get()), names{"write"});
}

TEST(Kevent, AFailedChangeWithoutRoomEndsTheCallBeforeTheLaterChanges) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    const std::array<struct kevent, 3> changes{
        change_of(pair.near.get(), EVFILT_READ, EV_DELETE),
        change_of(pair.near.get(), -9, EV_ADD),
        change_of(pair.near.get(), EVFILT_WRITE, EV_ADD),
    };
    struct kevent event {};
    errno = 0;
    EXPECT_EQ(kevent(queue.get(), changes.data(), 3, &event, 1, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(poll_names(queue.get()), names{});
}

TEST(Kevent, ChangesAreMadeBeforeEventsAreFetched) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    const struct kevent change = change_of(pair.near.get(), EVFILT_WRITE, EV_ADD, tag(9));
    struct kevent event {};
    ASSERT_EQ(kevent(queue.get(), &change, 1, &event, 1, nullptr), 1);
    EXPECT_EQ(event.udata, tag(9));
}

TEST(Kevent, SameArrayForChangesAndEvents) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    std::array<struct kevent, 3> both{
        change_of(pair.near.get(), EVFILT_READ, EV_DELETE, tag(1)),
        change_of(pair.near.get(), EVFILT_READ, EV_ADD, tag(2)),
        change_of(pair.near.get(), EVFILT_WRITE, EV_DELETE, tag(3)),
    };
    ASSERT_EQ(kevent(queue.get(), both.data(), 3, both.data(), 3, nullptr), 2);
    EXPECT_EQ(both[0].udata, tag(1));
    EXPECT_EQ(both[0].data, ENOENT);
    EXPECT_EQ(both[1].udata, tag(3));
    EXPECT_EQ(both[1].data, ENOENT);

    both[0] = change_of(pair.near.get(), EVFILT_WRITE, EV_ADD, tag(4));
    send_bytes(pair.far, "x");
    ASSERT_EQ(kevent(queue.get(), both.data(), 1, both.data(), 3, nullptr), 2);
    EXPECT_EQ(names_of({both[0], both[1]}), (names{"read", "write"}));
}

TEST(Kevent, ADeliveredEventCanBeHandedBackAsAChange) {
    const unique_fd queue(kqueue());
    ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ), 0);
    pair.far.reset();
    auto events = poll(queue.get());
    ASSERT_EQ(names_of(events), names{"read end"});
    events[0].flags |= EV_DELETE;
    EXPECT_EQ(apply(queue.get(), events[0]), 0);
    EXPECT_EQ(poll_names(queue.get()), names{});
}

TEST(Kevent, WithoutRoomForEventsItReturnsAtOnce) {
    const unique_fd queue(kqueue());
    constexpr timespec invalid{-1, -1};
    EXPECT_EQ(kevent(queue.get(), nullptr, 0, nullptr, 0, nullptr), 0);
    EXPECT_EQ(kevent(queue.get(), nullptr, 0, nullptr, 0, &invalid), 0) << "time is not looked at";
}

TEST(Kevent, InvalidTimesCountsAndArraysAreRefusedBeforeAnyChange) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    const struct kevent change = change_of(pair.near.get(), EVFILT_WRITE, EV_ADD);
    struct kevent event {};
    for (const timespec invalid :
         {timespec{-1, 0}, timespec{0, -1}, timespec{0, 1000000000}, timespec{0, LONG_MAX}}) {
        EXPECT_EQ(kevent(queue.get(), &change, 1, &event, 1, &invalid), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(kevent(queue.get(), &change, -1, &event, 1, &no_wait), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(kevent(queue.get(), &change, 1, &event, -1, &no_wait), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(kevent(queue.get(), nullptr, 1, &event, 1, &no_wait), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(kevent(queue.get(), &change, 1, nullptr, 1, &no_wait), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(poll_names(queue.get()), names{});
}

TEST(Kevent, ReturnsZeroWhenTheTimePasses) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ), 0);
    struct kevent event {};
    constexpr timespec short_time{0, 100000};
    EXPECT_EQ(kiv_test::uninterrupted(
                  [&] { return kevent(queue.get(), nullptr, 0, &event, 1, &short_time); }),
              0);
}

TEST(Kevent, ReturnsZeroWhenTheTimePassesThoughAForgottenDescriptorIsReady) {
    const unique_fd queue(kqueue());
    ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ), 0);
    const unique_fd keeps_the_file_open(::dup(pair.near.get()));
    pair.near.reset();
    send_bytes(pair.far, "x");
    struct kevent event {};
    const timespec limit{0, 20'000'000};
    EXPECT_EQ(kevent(queue.get(), nullptr, 0, &event, 1, &limit), 0);
}

TEST(Kevent, TheLongestTimeIsLikeForEver) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
    struct kevent event {};
    constexpr timespec longest{LONG_MAX, 999999999};
    EXPECT_EQ(kevent(queue.get(), nullptr, 0, &event, 1, &longest), 1);
}

TEST(Kevent, OlderSystemsWaitNoShorterThanAsked) {
    struct limit_case {
        timespec limit;
        int milliseconds;
    };
    const limit_case cases[] = {
        {{0, 0}, 0},
        {{0, 1}, 1},
        {{0, 1000000}, 1},
        {{2, 1000001}, 2002},
        {{INT_MAX / 1000 - 1, 999999999}, INT_MAX / 1000 * 1000},
        {{INT_MAX / 1000, 0}, INT_MAX},
        {{LONG_MAX, 999999999}, INT_MAX},
    };
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
    is_older_system = true;
    struct kevent event {};
    for (const auto& [limit, milliseconds] : cases) {
        SCOPED_TRACE(milliseconds);
        last_milliseconds = -2;
        EXPECT_EQ(kevent(queue.get(), nullptr, 0, &event, 1, &limit), 1);
        EXPECT_EQ(last_milliseconds, milliseconds);
    }
    EXPECT_EQ(kevent(queue.get(), nullptr, 0, &event, 1, nullptr), 1);
    EXPECT_EQ(last_milliseconds, -1);
    is_older_system = false;
}

TEST(Kevent, SuccessLeavesErrnoAlone) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    struct kevent event {};
    errno = 4711;
    EXPECT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ), 0);
    EXPECT_EQ(kevent(queue.get(), nullptr, 0, &event, 1, &no_wait), 0);
    EXPECT_EQ(errno, 4711);

    const unique_fd listening = listener(); // whose bytes cannot be counted
    const unique_fd client = connected_to(listening);
    EXPECT_EQ(errno, 4711);
    EXPECT_EQ(add(queue.get(), listening.get(), EVFILT_READ), 0);
    EXPECT_EQ(kevent(queue.get(), nullptr, 0, &event, 1, nullptr), 1);
    EXPECT_EQ(drop(queue.get(), listening.get(), EVFILT_READ), 0);
    const struct kevent failing = change_of(pair.near.get(), EVFILT_WRITE, EV_DELETE);
    EXPECT_EQ(kevent(queue.get(), &failing, 1, &event, 1, nullptr), 1);
    EXPECT_EQ(errno, 4711);
}

void ignore_signal(int /*number*/) {}

TEST(Kevent, ASignalEndsTheWaitWithEintrAndTheChangesAreMade) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    struct sigaction action {};
    struct sigaction old {};
    action.sa_handler = ignore_signal;
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &old), 0);

    std::atomic<bool> ended{false};
    int result = 0;
    int error = 0;
    std::thread waiter([&] {
        const struct kevent change = change_of(pair.near.get(), EVFILT_READ, EV_ADD);
        struct kevent event {};
        result = kevent(queue.get(), &change, 1, &event, 1, nullptr);
        error = errno;
        ended = true;
    });
    EXPECT_TRUE(kiv_test::wait_until([&] {
        ::pthread_kill(waiter.native_handle(), SIGUSR1);
        return ended.load();
    }));
    waiter.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, EINTR);
    send_bytes(pair.far, "x");
    EXPECT_EQ(poll_names(queue.get()), names{"read"});
    ::sigaction(SIGUSR1, &old, nullptr);
}

TEST(Kevent, AListenerReportsAtLeastOneConnection) {
    const unique_fd queue(kqueue());
    const unique_fd listening = listener();
    ASSERT_EQ(add(queue.get(), listening.get(), EVFILT_READ), 0);
    const unique_fd client = connected_to(listening);
    struct kevent event {};
    ASSERT_EQ(kevent(queue.get(), nullptr, 0, &event, 1, nullptr), 1);
    EXPECT_EQ(event.flags, 0);
    EXPECT_EQ(event.data, 1);
}

TEST(Kevent, AWriteEventOffersWhatAReadyPipeTakes) {
    const unique_fd queue(kqueue());
    const ends pipe = pipe_pair();
    ASSERT_EQ(add(queue.get(), pipe.far.get(), EVFILT_WRITE), 0);
    std::size_t written = 0;
    for (auto events = poll(queue.get()); !events.empty(); events = poll(queue.get())) {
        ASSERT_EQ(events[0].data, PIPE_BUF);
        const std::vector<char> bytes(PIPE_BUF);
        ASSERT_TRUE(kiv_test::write_fully(pipe.far.get(), bytes.data(), bytes.size()));
        written += bytes.size();
    }
    EXPECT_EQ(written, static_cast<std::size_t>(::fcntl(pipe.far.get(), F_GETPIPE_SZ)));
}

TEST(Kevent, PeerCloseGivesEofWithTheUnreadBytes) {
    const unique_fd queue(kqueue());
    ends pair = tcp_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ), 0);
    send_bytes(pair.far, "last");
    pair.far.reset();
    const auto ended = [&] {
        const auto events = poll(queue.get());
        return !events.empty() && (events[0].flags & EV_EOF) != 0;
    };
    ASSERT_TRUE(kiv_test::wait_until(ended));
    EXPECT_EQ(poll(queue.get())[0].data, 4);
    EXPECT_EQ(receive_bytes(pair.near), "last");
    const auto events = poll(queue.get());
    ASSERT_EQ(names_of(events), names{"read end"});
    EXPECT_EQ(events[0].data, 0);
    EXPECT_EQ(events[0].fflags, 0U);
}

TEST(Kevent, ASocketThatWasNeverConnectedIsAtItsEndAtOnce) {
    const unique_fd queue(kqueue());
    const unique_fd socket(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(add(queue.get(), socket.get(), EVFILT_READ), 0);
    ASSERT_EQ(add(queue.get(), socket.get(), EVFILT_WRITE), 0);
    EXPECT_EQ(poll_names(queue.get()), (names{"read end", "write end"}));
}

TEST(Kevent, AHalfClosedPeerEndsReadingAndNotWriting) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ), 0);
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
    ASSERT_EQ(::shutdown(pair.far.get(), SHUT_WR), 0);
    EXPECT_EQ(poll_names(queue.get()), (names{"read end", "write"}));
}

TEST(Kevent, AResetConnectionEndsBothFiltersAndKeepsPendingError) {
    const unique_fd queue(kqueue());
    ends pair = tcp_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ), 0);
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
    constexpr linger reset_on_close{1, 0};
    ASSERT_EQ(::setsockopt(pair.far.get(), SOL_SOCKET, SO_LINGER, &reset_on_close,
                           sizeof(reset_on_close)),
              0);
    pair.far.reset();
    ASSERT_TRUE(kiv_test::wait_until([&] {
        return poll_names(queue.get()) == names{"read end", "write end"};
    }));
    char byte = 0;
    EXPECT_EQ(::recv(pair.near.get(), &byte, 1, 0), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST(Kevent, APipeWithoutWritersEndsReading) {
    const unique_fd queue(kqueue());
    ends pipe = pipe_pair();
    ASSERT_EQ(add(queue.get(), pipe.near.get(), EVFILT_READ), 0);
    pipe.far.reset();
    EXPECT_EQ(poll_names(queue.get()), names{"read end"});
}

TEST(Kevent, APipeWithoutReadersEndsWriting) {
    const unique_fd queue(kqueue());
    ends pipe = pipe_pair();
    ASSERT_EQ(add(queue.get(), pipe.far.get(), EVFILT_WRITE), 0);
    pipe.near.reset();
    EXPECT_EQ(poll_names(queue.get()), names{"write end"});
}

TEST(Kevent, ADatagramErrorIsNoEndAndStaysPending) {
    const unique_fd queue(kqueue());
    const unique_fd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0));
    unique_fd refusing(::socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(refusing.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(::getsockname(refusing.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    ASSERT_EQ(::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    refusing.reset();
    send_bytes(socket, "anybody there?");
    ASSERT_EQ(add(queue.get(), socket.get(), EVFILT_READ), 0);
    ASSERT_EQ(add(queue.get(), socket.get(), EVFILT_WRITE), 0);
    ASSERT_TRUE(kiv_test::wait_until([&] {
        return poll_names(queue.get()) == names{"read", "write"};
    }));
    char byte = 0;
    EXPECT_EQ(::recv(socket.get(), &byte, 1, 0), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(Kevent, RegularFilesCannotBeWatched) {
    const unique_fd queue(kqueue());
    const unique_fd file(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(add(queue.get(), file.get(), EVFILT_READ), EPERM);
    EXPECT_EQ(drop(queue.get(), file.get(), EVFILT_READ), ENOENT);
}

TEST(Kevent, WhatCountsNoBytesReportsOne) {
    const unique_fd queue(kqueue());
    const unique_fd counter(::eventfd(12, EFD_CLOEXEC));
    ASSERT_EQ(add(queue.get(), counter.get(), EVFILT_READ), 0);
    const auto events = poll(queue.get());
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].data, 1);
}

TEST(Kevent, AQueueCanBeWatchedByAnother) {
    const unique_fd outer(kqueue());
    const unique_fd inner(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add(outer.get(), inner.get(), EVFILT_READ), 0);
    ASSERT_EQ(add(inner.get(), pair.near.get(), EVFILT_READ), 0);
    EXPECT_EQ(poll_names(outer.get()), names{});
    send_bytes(pair.far, "x");
    EXPECT_EQ(poll_names(outer.get()), names{"read"});
    EXPECT_EQ(poll_names(inner.get()), names{"read"});
    EXPECT_EQ(poll_names(outer.get()), names{"read"});
    receive_bytes(pair.near);
    EXPECT_EQ(poll_names(outer.get()), names{});
}

TEST(Kevent, MoreThanOneCallDeliversCanBeReadyAndAllAreDelivered) {
    constexpr int counter_count = 300;
    const unique_fd queue(kqueue());
    std::vector<unique_fd> counters;
    for (int i = 0; i < counter_count; ++i) {
        counters.emplace_back(::eventfd(1, EFD_CLOEXEC));
        ASSERT_EQ(add_once(queue.get(), counters.back().get(), EVFILT_READ), 0);
    }
    EXPECT_EQ(poll(queue.get(), counter_count).size(), 256U);
    EXPECT_EQ(poll(queue.get(), counter_count).size(), 44U);
}

TEST(Kevent, ClosedDescriptorIsForgottenAndItsNumberCanComeBack) {
    const unique_fd queue(kqueue());
    ends first = socket_pair();
    const int number = first.near.get();
    ASSERT_EQ(add(queue.get(), number, EVFILT_READ, tag(1)), 0);
    ASSERT_EQ(add(queue.get(), number, EVFILT_WRITE, tag(2)), 0);
    first.near.reset();
    EXPECT_EQ(poll_names(queue.get()), names{});

    const ends second = socket_pair();
    ASSERT_EQ(second.near.get(), number);
    send_bytes(second.far, "x");
    EXPECT_EQ(poll_names(queue.get()), names{}) << "the new file is not watched yet";
    // Adding one filter must not bring the old other one back.
    ASSERT_EQ(add(queue.get(), number, EVFILT_READ, tag(3)), 0);
    const auto events = poll(queue.get());
    ASSERT_EQ(names_of(events), names{"read"});
    EXPECT_EQ(events[0].udata, tag(3));
    EXPECT_EQ(drop(queue.get(), number, EVFILT_WRITE), ENOENT);
}

TEST(Kevent, AddOfWhatSeemsToBeThereWatchesTheNewFileOfTheNumber) {
    const unique_fd queue(kqueue());
    ends first = socket_pair();
    const int number = first.near.get();
    ASSERT_EQ(add(queue.get(), number, EVFILT_READ, tag(1)), 0);
    first.near.reset();
    const ends second = socket_pair();
    ASSERT_EQ(second.near.get(), number);
    ASSERT_EQ(add(queue.get(), number, EVFILT_READ, tag(1)), 0);
    send_bytes(second.far, "x");
    EXPECT_EQ(poll_names(queue.get()), names{"read"});
}

TEST(Kevent, DeleteAfterTheNumberCameBackFindsNoFilter) {
    const unique_fd queue(kqueue());
    ends first = socket_pair();
    const int number = first.near.get();
    ASSERT_EQ(add(queue.get(), number, EVFILT_READ), 0);
    first.near.reset();
    EXPECT_EQ(drop(queue.get(), number, EVFILT_READ), EBADF);
    ASSERT_EQ(::dup2(first.far.get(), number), number);
    EXPECT_EQ(drop(queue.get(), number, EVFILT_READ), ENOENT);
    ::close(number);
}

TEST(Kevent, NumberThatCameBackAsARegularFileHasNoFilter) {
    const unique_fd queue(kqueue());
    ends first = socket_pair();
    const int number = first.near.release();
    ASSERT_EQ(add(queue.get(), number, EVFILT_READ), 0);
    const unique_fd file(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::dup2(file.get(), number), number);
    EXPECT_EQ(drop(queue.get(), number, EVFILT_READ), ENOENT);
    EXPECT_EQ(add(queue.get(), number, EVFILT_READ), EPERM);
    ::close(number);
}

TEST(Kevent, DupedDescriptorKeepsNoFilterOfTheClosedOneAlive) {
    const unique_fd queue(kqueue());
    ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ, tag(1)), 0);
    const unique_fd duplicate(::dup(pair.near.get()));
    pair.near.reset();
    send_bytes(pair.far, "x");
    EXPECT_EQ(poll_names(queue.get()), names{});

    // The forgotten entry does not turn waiting into a busy loop either: an endless one waits.
    const ends other = socket_pair();
    ASSERT_EQ(add(queue.get(), other.near.get(), EVFILT_READ, tag(2)), 0);
    std::thread sender([&] { send_bytes(other.far, "y"); });
    struct kevent event {};
    EXPECT_EQ(wait_for_event(queue, event), 1);
    EXPECT_EQ(event.udata, tag(2));
    sender.join();
}

TEST(Kevent, DupedDescriptorOfAClosedOneDoesNotSpeakForTheNewFileOfItsNumber) {
    const unique_fd queue(kqueue());
    ends pair = socket_pair();
    const int number = pair.near.get();
    ASSERT_EQ(add(queue.get(), number, EVFILT_READ, tag(1)), 0);
    const unique_fd duplicate(::dup(number));
    pair.near.reset();

    const ends second = socket_pair();
    ASSERT_EQ(second.near.get(), number);
    send_bytes(pair.far, "x");
    EXPECT_EQ(poll_names(queue.get()), names{});

    ASSERT_EQ(add(queue.get(), number, EVFILT_READ, tag(2)), 0);
    EXPECT_EQ(poll_names(queue.get()), names{});
    send_bytes(pair.far, "x");
    EXPECT_EQ(poll_names(queue.get()), names{});
    send_bytes(second.far, "y");
    const auto events = poll(queue.get());
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].udata, tag(2));
}

TEST(Kevent, DupedDescriptorCanBringTheFileBackUnderItsOldNumber) {
    const unique_fd queue(kqueue());
    ends pair = socket_pair();
    const int number = pair.near.get();
    ASSERT_EQ(add(queue.get(), number, EVFILT_READ, tag(1)), 0);
    const unique_fd duplicate(::dup(number));
    pair.near.reset();
    send_bytes(pair.far, "x");
    ASSERT_EQ(poll_names(queue.get()), names{});

    pair.near.reset(::fcntl(duplicate.get(), F_DUPFD, number));
    ASSERT_EQ(pair.near.get(), number);
    EXPECT_EQ(poll_names(queue.get()), names{});
    ASSERT_EQ(add(queue.get(), number, EVFILT_WRITE, tag(2)), 0);
    auto events = poll(queue.get());
    ASSERT_EQ(names_of(events), names{"write"});
    EXPECT_EQ(events[0].udata, tag(2));
    ASSERT_EQ(add(queue.get(), number, EVFILT_READ, tag(3)), 0);
    EXPECT_EQ(poll_names(queue.get()), (names{"read", "write"}));
}

TEST(Kevent, DupedDescriptorsAreWatchedSeparately) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    const unique_fd duplicate(::dup(pair.near.get()));
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ, tag(1)), 0);
    ASSERT_EQ(add(queue.get(), duplicate.get(), EVFILT_READ, tag(2)), 0);
    send_bytes(pair.far, "x");
    EXPECT_EQ(poll_names(queue.get()), (names{"read", "read"}));
    ASSERT_EQ(drop(queue.get(), pair.near.get(), EVFILT_READ), 0);
    const auto events = poll(queue.get());
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].udata, tag(2));
}

TEST(Kevent, TwoQueuesOnOneDescriptorAreIndependent) {
    const unique_fd first(kqueue());
    const unique_fd second(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add_once(first.get(), pair.near.get(), EVFILT_READ, tag(1)), 0);
    ASSERT_EQ(add(second.get(), pair.near.get(), EVFILT_READ, tag(2)), 0);
    ASSERT_EQ(add(second.get(), pair.near.get(), EVFILT_WRITE, tag(3)), 0);
    send_bytes(pair.far, "x");
    EXPECT_EQ(poll_names(first.get()), names{"read"});
    EXPECT_EQ(poll_names(first.get()), names{});
    EXPECT_EQ(poll_names(second.get()), (names{"read", "write"}));
    EXPECT_EQ(drop(second.get(), pair.near.get(), EVFILT_READ), 0);
    EXPECT_EQ(poll_names(second.get()), names{"write"});
}

TEST(Kevent, WhatIsNoQueueGivesEbadf) {
    const ends pair = socket_pair();
    const unique_fd file(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    struct kevent event {};
    for (const int descriptor : {-1, INT_MAX, 1000000, pair.near.get(), file.get()}) {
        errno = 0;
        EXPECT_EQ(kevent(descriptor, nullptr, 0, &event, 1, &no_wait), -1) << descriptor;
        EXPECT_EQ(errno, EBADF) << descriptor;
    }
}

TEST(Kevent, AClosedQueueGivesEbadfWhateverItsNumberMeansNow) {
    unique_fd queue(kqueue());
    const int number = queue.get();
    const ends pair = socket_pair();
    ASSERT_EQ(add(number, pair.near.get(), EVFILT_WRITE), 0);
    queue.reset();
    const auto expect_ebadf = [&] {
        const struct kevent change = change_of(pair.near.get(), EVFILT_READ, EV_ADD);
        const struct kevent removal = change_of(pair.near.get(), EVFILT_WRITE, EV_DELETE);
        struct kevent event {};
        for (const struct kevent* asked : {&change, &removal}) {
            errno = 0;
            EXPECT_EQ(kevent(number, asked, 1, &event, 1, &no_wait), -1);
            EXPECT_EQ(errno, EBADF);
        }
        errno = 0;
        EXPECT_EQ(kevent(number, nullptr, 0, &event, 1, &no_wait), -1);
        EXPECT_EQ(errno, EBADF);
    };
    {
        SCOPED_TRACE("nothing");
        expect_ebadf();
    }
    SCOPED_TRACE("a socket");
    const unique_fd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(socket.get(), number);
    expect_ebadf();
}

TEST(Kevent, AQueueUnderAnOldNumberStartsEmpty) {
    const ends pair = socket_pair();
    unique_fd first(kqueue());
    const int number = first.get();
    ASSERT_EQ(add(number, pair.near.get(), EVFILT_WRITE), 0);
    first.reset();
    const unique_fd second(kqueue());
    ASSERT_EQ(second.get(), number);
    EXPECT_EQ(poll_names(number), names{});
    EXPECT_EQ(drop(number, pair.near.get(), EVFILT_WRITE), ENOENT);
    ASSERT_EQ(add(number, pair.near.get(), EVFILT_WRITE), 0);
    EXPECT_EQ(poll_names(number), names{"write"});
}

TEST(Kevent, ADuplicateOfAQueueIsNoQueue) {
    const unique_fd queue(kqueue());
    const unique_fd duplicate(::fcntl(queue.get(), F_DUPFD, 500)); // never a queue before
    struct kevent event {};
    EXPECT_EQ(kevent(duplicate.get(), nullptr, 0, &event, 1, &no_wait), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(Kqueue, ClosingTheQueueFreesItsState) {
    const ends pair = socket_pair();
    const auto use_a_queue = [&] {
        const unique_fd queue(kqueue());
        ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
        ASSERT_EQ(add(queue.get(), pair.far.get(), EVFILT_READ), 0);
    };
    use_a_queue();
    const long before = kiv_test::live_allocations();
    for (int i = 0; i < 20000; ++i) {
        use_a_queue();
    }
    EXPECT_EQ(kiv_test::live_allocations(), before);
}

TEST(Kqueue, StateOfClosedQueuesIsFreedThoughTheirNumbersDoNotComeBack) {
    constexpr int queue_count = 100;
    const ends pair = socket_pair();
    std::vector<unique_fd> queues;
    queues.reserve(queue_count);
    // The records of the numbers stay; made here so that they do not count below.
    for (int i = 0; i < queue_count; ++i) {
        queues.emplace_back(kqueue());
    }
    const long before = kiv_test::live_allocations();
    for (const unique_fd& queue : queues) {
        ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
    }
    const long at_most = kiv_test::live_allocations();
    EXPECT_GE(at_most, before + queue_count);

    const int number = queues[0].get();
    queues.clear();
    for (int i = 0; i < queue_count; ++i) {
        const unique_fd queue(kqueue());
        ASSERT_EQ(queue.get(), number); // the lowest, each time
    }
    EXPECT_LE(kiv_test::live_allocations(), before);
}

TEST(Kevent, FailedAddsKeepNothing) {
    const unique_fd queue(kqueue());
    EXPECT_EQ(add(queue.get(), 1000000, EVFILT_READ), EBADF);
    const long before = kiv_test::live_allocations();
    for (int i = 1; i < 1000; ++i) {
        EXPECT_EQ(add(queue.get(), 1000000 + i, EVFILT_READ), EBADF);
    }
    EXPECT_EQ(kiv_test::live_allocations(), before);
}

TEST(Kqueue, FailureTellsWhy) {
    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
    const int next = unique_fd(::open("/dev/null", O_RDONLY)).get();
    rlimit tight = old;
    tight.rlim_cur = static_cast<rlim_t>(next);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
    errno = 0;
    EXPECT_EQ(kqueue(), -1);
    EXPECT_EQ(errno, EMFILE);
    ::setrlimit(RLIMIT_NOFILE, &old);
}

TEST(Kevent, WaitingAllocatesNothing) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ), 0);
    send_bytes(pair.far, "x");
    std::array<struct kevent, 4> events{};
    const long before = kiv_test::allocations();
    for (int i = 0; i < 10; ++i) {
        const struct kevent change = change_of(pair.near.get(), EVFILT_WRITE, EV_ADD | EV_ONESHOT);
        ASSERT_EQ(kevent(queue.get(), &change, 1, events.data(), 4, nullptr), 2);
    }
    EXPECT_EQ(kiv_test::allocations(), before);
}

TEST(Kevent, ChangeAndWaitFromTwoThreads) {
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    send_bytes(pair.far, "x");
    struct kevent event {};
    int count = 0;
    std::thread waiter([&] { count = wait_for_event(queue, event); });
    EXPECT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ, tag(1)), 0);
    waiter.join();
    EXPECT_EQ(count, 1);
    EXPECT_EQ(event.udata, tag(1));
}

TEST(Kevent, OneShotIsDeliveredToOneOfManyWaiters) {
    constexpr int rounds = 200;
    const unique_fd queue(kqueue());
    const unique_fd stop(::eventfd(0, EFD_CLOEXEC));
    const ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), stop.get(), EVFILT_READ, tag(1)), 0);
    std::atomic<int> delivered{0};
    std::vector<std::thread> waiters;
    waiters.reserve(3);
    for (int i = 0; i < 3; ++i) {
        waiters.emplace_back([&] {
            struct kevent event {};
            while (wait_for_event(queue, event) == 1 && event.udata != tag(1)) {
                ++delivered;
            }
        });
    }
    for (int round = 1; round <= rounds; ++round) {
        EXPECT_EQ(add_once(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
        ASSERT_TRUE(kiv_test::wait_until([&] { return delivered >= round; }));
    }
    ::eventfd_write(stop.get(), 1);
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(delivered, rounds);
}

TEST(Kevent, AFilterDeletedInTheMomentOfItsEventIsNotReported) {
    static int queue_number = -1;
    static int descriptor = -1;
    const unique_fd queue(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ), 0);
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
    queue_number = queue.get();
    descriptor = pair.near.get();

    after_fetch = [] { EXPECT_EQ(drop(queue_number, descriptor, EVFILT_WRITE), 0); };
    EXPECT_EQ(poll_names(queue.get()), names{});
    send_bytes(pair.far, "x");
    EXPECT_EQ(poll_names(queue.get()), names{"read"}) << "the other filter must stay armed";

    after_fetch = [] {
        EXPECT_EQ(drop(queue_number, descriptor, EVFILT_READ), 0);
        EXPECT_EQ(add(queue_number, descriptor, EVFILT_WRITE, tag(2)), 0);
    };
    EXPECT_EQ(poll_names(queue.get()), names{"write"}) << "of the new filter";
}

TEST(Kevent, ADescriptorClosedInTheMomentOfItsEventIsNotReported) {
    static int descriptor = -1;
    const unique_fd queue(kqueue());
    ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
    descriptor = pair.near.release();
    after_fetch = [] { ::close(descriptor); };
    EXPECT_EQ(poll_names(queue.get()), names{});
}

TEST(Kevent, AQueueReplacedDuringAWaitEndsTheWaitWithEbadf) {
    static int queue_number = -1;
    unique_fd queue(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
    queue_number = queue.get();
    after_fetch = [] {
        ::close(queue_number);
        EXPECT_EQ(kqueue(), queue_number);
    };
    struct kevent event {};
    EXPECT_EQ(kevent(queue.get(), nullptr, 0, &event, 1, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
}

// A thread that waits for one event; it can be cancelled.
pthread_t thread_that_waits(unique_fd& queue) {
    const auto wait = [](void* queue_waited_for) -> void* {
        struct kevent event {};
        wait_for_event(*static_cast<unique_fd*>(queue_waited_for), event);
        return nullptr;
    };
    pthread_t waiter{};
    EXPECT_EQ(::pthread_create(&waiter, nullptr, wait, &queue), 0);
    return waiter;
}

TEST(Kevent, AThreadCancelledInTheMomentOfItsEventLosesNoneForTheOthers) {
    unique_fd queue(kqueue());
    const ends pair = socket_pair();
    ASSERT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ), 0);
    send_bytes(pair.far, "x");
    after_fetch = cancel_this_thread;
    const pthread_t waiter = thread_that_waits(queue);
    void* result = nullptr;
    ASSERT_EQ(::pthread_join(waiter, &result), 0);
    ASSERT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(poll_names(queue.get()), names{"read"});
}

TEST(Kevent, AWaitingThreadCanBeCancelled) {
    unique_fd queue(kqueue());
    const pthread_t waiter = thread_that_waits(queue);
    ASSERT_EQ(::pthread_cancel(waiter), 0);
    void* result = nullptr;
    ASSERT_EQ(::pthread_join(waiter, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

TEST(Kevent, ThreadsMayChangeWaitCloseAndReopenAllAtOnce) {
    constexpr int rounds = 2000;
    const unique_fd queue(kqueue());
    const unique_fd stop(::eventfd(0, EFD_CLOEXEC));
    ASSERT_EQ(add(queue.get(), stop.get(), EVFILT_READ, tag(1)), 0);
    std::vector<std::thread> threads;
    threads.reserve(4);
    std::atomic<long> reported{0};
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            std::array<struct kevent, 3> events{};
            for (bool stopped = false; !stopped;) {
                const int count = kiv_test::uninterrupted(
                    [&] { return kevent(queue.get(), nullptr, 0, events.data(), 3, nullptr); });
                ASSERT_GT(count, 0);
                for (int j = 0; j < count; ++j) {
                    stopped = stopped || events[static_cast<std::size_t>(j)].udata == tag(1);
                }
                reported += count;
            }
        });
    }
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                const ends pair = socket_pair();
                EXPECT_EQ(add(queue.get(), pair.near.get(), EVFILT_READ), 0);
                EXPECT_EQ(add_once(queue.get(), pair.near.get(), EVFILT_WRITE), 0);
                send_bytes(pair.far, "x");
                if (round % 2 == 0) {
                    EXPECT_EQ(drop(queue.get(), pair.near.get(), EVFILT_READ), 0);
                }
                const unique_fd other(kqueue());
                EXPECT_EQ(add(other.get(), pair.near.get(), EVFILT_READ), 0);
            }
        });
    }
    threads[2].join();
    threads[3].join();
    ::eventfd_write(stop.get(), 1);
    threads[0].join();
    threads[1].join();
    EXPECT_GT(reported, 0);
}

// What the system promises, as plainly as possible: every filter by descriptor number and kind.
struct model_filter {
    void* udata;
    bool one_shot;
};
using model = std::map<std::pair<int, std::int16_t>, model_filter>;

// A few socket pairs whose near ends are watched, closed, duplicated and opened again.
class random_session {
public:
    explicit random_session(unsigned int seed) : random_(seed) {
        for (ends& pair : pairs_) {
            pair = socket_pair();
        }
    }

    void step() {
        ends& pair = pairs_[below(pairs_.size())];
        const int descriptor = pair.near.get();
        const std::int16_t filter = below(2) == 0 ? EVFILT_READ : EVFILT_WRITE;
        const auto key = std::make_pair(descriptor, filter);
        switch (below(8)) {
        case 0:
        case 1: {
            const bool one_shot = below(2) == 0;
            void* udata = tag(++last_tag_);
            ASSERT_EQ((one_shot ? add_once : add)(queue_.get(), descriptor, filter, udata), 0);
            model_[key] = {udata, one_shot};
            break;
        }
        case 2:
            ASSERT_EQ(drop(queue_.get(), descriptor, filter), model_.erase(key) == 1 ? 0 : ENOENT);
            break;
        case 3:
            send_bytes(pair.far, "x");
            break;
        case 4:
            receive_bytes(pair.near);
            break;
        case 5:
            reopen(pair);
            break;
        default:
            fetch(1 + static_cast<int>(below(4)));
        }
    }

    // With room for all, exactly what the model has ready is reported.
    void check_all() { fetch(64); }

private:
    std::size_t below(std::size_t limit) { return random_() % limit; }

    // Closes a near end; its number comes back at once as another file.
    void reopen(ends& pair) {
        const int number = pair.near.get();
        if (below(2) == 0) {
            strays_.emplace_back(::dup(number)); // the old file lives on, and may become ready
            stray_peers_.push_back(std::move(pair.far));
        }
        pair.near.reset();
        model_.erase({number, EVFILT_READ});
        model_.erase({number, EVFILT_WRITE});
        if (!stray_peers_.empty() && below(2) == 0) {
            send_bytes(stray_peers_[below(stray_peers_.size())], "x");
        }
        pair = socket_pair();
        if (pair.far.get() == number) {
            std::swap(pair.near, pair.far);
        } else if (pair.near.get() != number) {
            pair.near.reset(::dup2(pair.near.get(), number));
        }
    }

    bool is_ready(const std::pair<int, std::int16_t>& key) const {
        if (key.second == EVFILT_WRITE) {
            return true; // the few bytes of a session never fill a socket
        }
        int bytes = 0;
        EXPECT_EQ(::ioctl(key.first, FIONREAD, &bytes), 0);
        return bytes > 0;
    }

    void fetch(int room) {
        std::size_t ready = 0;
        for (const auto& [key, filter] : model_) {
            ready += is_ready(key) ? 1 : 0;
        }
        const auto events = poll(queue_.get(), room);
        // Strays may take places in vain, but never keep what is ready from being reported.
        if (room >= 64) {
            ASSERT_EQ(events.size(), ready);
        }
        std::set<std::pair<int, std::int16_t>> seen;
        for (const struct kevent& event : events) {
            const auto key = std::make_pair(static_cast<int>(event.ident), event.filter);
            ASSERT_TRUE(seen.insert(key).second) << "reported twice";
            const auto place = model_.find(key);
            ASSERT_NE(place, model_.end()) << "no such filter: " << name_of(event);
            ASSERT_TRUE(is_ready(key));
            ASSERT_EQ(event.udata, place->second.udata);
            ASSERT_EQ(event.flags, 0);
            if (place->second.one_shot) {
                model_.erase(place);
            }
        }
        ASSERT_TRUE(ready == 0 || !events.empty());
    }

    std::mt19937 random_;
    unique_fd queue_{kqueue()};
    std::array<ends, 4> pairs_;
    std::vector<unique_fd> strays_;
    std::vector<unique_fd> stray_peers_;
    model model_;
    std::uintptr_t last_tag_ = 0;
};

TEST(Kevent, RandomSessionsAgreeWithALiteralModel) {
    for (unsigned int seed = 0; seed < 200; ++seed) {
        SCOPED_TRACE(seed);
        random_session session(seed);
        for (int step = 0; step < 200 && !testing::Test::HasFailure(); ++step) {
            session.step();
        }
        session.check_all();
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

} // namespace
