// The queue beside plain epoll, level-triggered: what it costs that each event is checked to belong
// to the file that the descriptor means now, and tells how many bytes wait.

#include "KivFramework/KivKqueue.h"
#include "KivFramework/internal/unique_fd.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include <benchmark/benchmark.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace KivFramework;
using internal::unique_fd;

constexpr std::size_t most_events = 64;
constexpr timespec no_wait{0, 0};

struct ends {
    unique_fd near;
    unique_fd far;
};

std::vector<ends> socket_pairs(std::size_t count) {
    std::vector<ends> pairs(count);
    for (ends& pair : pairs) {
        std::array<int, 2> sockets{-1, -1};
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sockets.data()) == 0) {
            pair = {unique_fd(sockets[0]), unique_fd(sockets[1])};
        }
    }
    return pairs;
}

void put_byte(const unique_fd& to) {
    const char byte = 'x';
    benchmark::DoNotOptimize(::write(to.get(), &byte, 1));
}

void take_byte(int from) {
    char byte = 0;
    benchmark::DoNotOptimize(::read(from, &byte, 1));
}

void change(int queue, int descriptor, std::int16_t filter, std::uint16_t flags) {
    struct kevent asked {};
    EV_SET(&asked, static_cast<std::uintptr_t>(descriptor), filter, flags, 0, 0, nullptr);
    benchmark::DoNotOptimize(kevent(queue, &asked, 1, nullptr, 0, nullptr));
}

void change(int set, int operation, int descriptor, std::uint32_t events) {
    epoll_event asked{};
    asked.events = events;
    asked.data.fd = descriptor;
    benchmark::DoNotOptimize(::epoll_ctl(set, operation, descriptor, &asked));
}

// One of many sockets becomes readable, is waited for and read.
void wait_and_dispatch_kqueue(benchmark::State& state) {
    const auto pairs = socket_pairs(static_cast<std::size_t>(state.range(0)));
    const unique_fd queue(kqueue());
    for (const ends& pair : pairs) {
        change(queue.get(), pair.near.get(), EVFILT_READ, EV_ADD);
    }
    std::array<struct kevent, most_events> events;
    std::size_t next = 0;
    while (state.KeepRunning()) {
        put_byte(pairs[next].far);
        next = (next + 1) % pairs.size();
        const int count = kevent(queue.get(), nullptr, 0, events.data(), most_events, nullptr);
        for (int i = 0; i < count; ++i) {
            take_byte(static_cast<int>(events[static_cast<std::size_t>(i)].ident));
        }
    }
}

void wait_and_dispatch_epoll(benchmark::State& state) {
    const auto pairs = socket_pairs(static_cast<std::size_t>(state.range(0)));
    const unique_fd set(::epoll_create1(EPOLL_CLOEXEC));
    for (const ends& pair : pairs) {
        change(set.get(), EPOLL_CTL_ADD, pair.near.get(), EPOLLIN | EPOLLRDHUP);
    }
    std::array<epoll_event, most_events> events;
    std::size_t next = 0;
    while (state.KeepRunning()) {
        put_byte(pairs[next].far);
        next = (next + 1) % pairs.size();
        const int count = ::epoll_wait(set.get(), events.data(), most_events, -1);
        for (int i = 0; i < count; ++i) {
            take_byte(events[static_cast<std::size_t>(i)].data.fd);
        }
    }
}

// Many sockets are readable; the time is that of one report.
void report_ready_kqueue(benchmark::State& state) {
    const auto pairs = socket_pairs(most_events);
    const unique_fd queue(kqueue());
    for (const ends& pair : pairs) {
        change(queue.get(), pair.near.get(), EVFILT_READ, EV_ADD);
        put_byte(pair.far);
    }
    std::array<struct kevent, most_events> events;
    std::int64_t reports = 0;
    while (state.KeepRunning()) {
        reports += kevent(queue.get(), nullptr, 0, events.data(), most_events, &no_wait);
    }
    state.SetItemsProcessed(reports);
}

void report_ready_epoll(benchmark::State& state) {
    const auto pairs = socket_pairs(most_events);
    const unique_fd set(::epoll_create1(EPOLL_CLOEXEC));
    for (const ends& pair : pairs) {
        change(set.get(), EPOLL_CTL_ADD, pair.near.get(), EPOLLIN | EPOLLRDHUP);
        put_byte(pair.far);
    }
    std::array<epoll_event, most_events> events;
    std::int64_t reports = 0;
    while (state.KeepRunning()) {
        reports += ::epoll_wait(set.get(), events.data(), most_events, 0);
    }
    state.SetItemsProcessed(reports);
}

// The same with the count of waiting bytes that a queue's event carries.
void report_ready_epoll_and_count(benchmark::State& state) {
    const auto pairs = socket_pairs(most_events);
    const unique_fd set(::epoll_create1(EPOLL_CLOEXEC));
    for (const ends& pair : pairs) {
        change(set.get(), EPOLL_CTL_ADD, pair.near.get(), EPOLLIN | EPOLLRDHUP);
        put_byte(pair.far);
    }
    std::array<epoll_event, most_events> events;
    std::int64_t reports = 0;
    while (state.KeepRunning()) {
        const int count = ::epoll_wait(set.get(), events.data(), most_events, 0);
        for (int i = 0; i < count; ++i) {
            int bytes = 0;
            ::ioctl(events[static_cast<std::size_t>(i)].data.fd, FIONREAD, &bytes);
            benchmark::DoNotOptimize(bytes);
        }
        reports += count;
    }
    state.SetItemsProcessed(reports);
}

// Interest that is there already is asked for again.
void add_again_kqueue(benchmark::State& state) {
    const auto pairs = socket_pairs(1);
    const unique_fd queue(kqueue());
    while (state.KeepRunning()) {
        change(queue.get(), pairs[0].near.get(), EVFILT_READ, EV_ADD);
    }
}

void add_again_epoll(benchmark::State& state) {
    const auto pairs = socket_pairs(1);
    const unique_fd set(::epoll_create1(EPOLL_CLOEXEC));
    change(set.get(), EPOLL_CTL_ADD, pairs[0].near.get(), EPOLLIN | EPOLLRDHUP);
    while (state.KeepRunning()) {
        change(set.get(), EPOLL_CTL_MOD, pairs[0].near.get(), EPOLLIN | EPOLLRDHUP);
    }
}

// Write readiness is asked for once, beside lasting read interest, and waited for.
void write_once_kqueue(benchmark::State& state) {
    const auto pairs = socket_pairs(1);
    const unique_fd queue(kqueue());
    change(queue.get(), pairs[0].near.get(), EVFILT_READ, EV_ADD);
    std::array<struct kevent, most_events> events;
    while (state.KeepRunning()) {
        change(queue.get(), pairs[0].near.get(), EVFILT_WRITE, EV_ADD | EV_ONESHOT);
        benchmark::DoNotOptimize(
            kevent(queue.get(), nullptr, 0, events.data(), most_events, nullptr));
    }
}

void write_once_epoll(benchmark::State& state) {
    const auto pairs = socket_pairs(1);
    const unique_fd set(::epoll_create1(EPOLL_CLOEXEC));
    constexpr std::uint32_t reading = EPOLLIN | EPOLLRDHUP;
    change(set.get(), EPOLL_CTL_ADD, pairs[0].near.get(), reading);
    std::array<epoll_event, most_events> events;
    while (state.KeepRunning()) {
        change(set.get(), EPOLL_CTL_MOD, pairs[0].near.get(), reading | EPOLLOUT);
        benchmark::DoNotOptimize(::epoll_wait(set.get(), events.data(), most_events, -1));
        change(set.get(), EPOLL_CTL_MOD, pairs[0].near.get(), reading);
    }
}

BENCHMARK(wait_and_dispatch_kqueue)->Name("dispatch/kiv")->Arg(1)->Arg(100);
BENCHMARK(wait_and_dispatch_epoll)->Name("dispatch/epoll")->Arg(1)->Arg(100);
BENCHMARK(report_ready_kqueue)->Name("report/kiv");
BENCHMARK(report_ready_epoll)->Name("report/epoll");
BENCHMARK(report_ready_epoll_and_count)->Name("report/epoll_count");
BENCHMARK(add_again_kqueue)->Name("add_again/kiv");
BENCHMARK(add_again_epoll)->Name("add_again/epoll");
BENCHMARK(write_once_kqueue)->Name("write_once/kiv");
BENCHMARK(write_once_epoll)->Name("write_once/epoll");

} // namespace

BENCHMARK_MAIN();
