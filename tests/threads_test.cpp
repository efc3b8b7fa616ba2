// The program interposes pthread_create, so that a test can make it fail.

#include "KivFramework/KivProcesses.h"

#include "tests/support/allocation_count.h"
#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <memory>

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

namespace {

std::atomic<bool> creation_fails{false};
std::atomic<int> detach_state{-1}; // of the last thread asked for

} // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*start)(void*), void* argument) noexcept {
    if (attributes != nullptr) {
        int state = -1;
        pthread_attr_getdetachstate(attributes, &state);
        detach_state = state;
    }
    if (creation_fails) {
        return EAGAIN;
    }
    using call = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static const auto next = reinterpret_cast<call>(::dlsym(RTLD_NEXT, "pthread_create"));
    return next(thread, attributes, start, argument);
}

namespace {

using namespace KivFramework::KivProcesses;

// A thread that waits until it may go on, and ends with a given code.
struct gated {
    std::atomic<bool> open{false};
    int exit_code = 0;
};

void* wait_at_gate(void* block) {
    auto* gate = static_cast<gated*>(GetThreadData(block));
    kiv_test::wait_until([gate] { return gate->open.load(); });
    EndThread(gate->exit_code, block);
    return nullptr;
}

void* end_at_once(void* block) {
    EndThread(*static_cast<int*>(GetThreadData(block)), block);
    return nullptr;
}

TEST(ThreadObj, HasItsFieldsInOrder) {
    EXPECT_EQ(offsetof(kivThreadObj, thread), 0);
    EXPECT_EQ(offsetof(kivThreadObj, ended), sizeof(pthread_t));
    EXPECT_EQ(offsetof(kivThreadObj, exit_code), sizeof(pthread_t) + sizeof(int));
    EXPECT_EQ(sizeof(kivThreadObj), sizeof(pthread_t) + 2 * sizeof(int));
}

TEST(ThreadStart, HasItsFieldsInOrder) {
    EXPECT_EQ(offsetof(kivThreadStart, data), 0);
    EXPECT_EQ(offsetof(kivThreadStart, thread_obj), sizeof(void*));
    EXPECT_EQ(sizeof(kivThreadStart), 2 * sizeof(void*));
}

TEST(JoinThread, ReturnsTheCodeGivenToEndThread) {
    for (int code : {0, 7, -1, INT_MAX, INT_MIN}) {
        kivThreadObj* thread = SpawnThread(end_at_once, &code);
        ASSERT_NE(thread, nullptr);
        EXPECT_EQ(JoinThread(thread), code);
    }
}

TEST(JoinThread, IgnoresNull) {
    EXPECT_EQ(JoinThread(nullptr), 0);
}

TEST(JoinThread, JoinsAThreadThatReturnedWithoutEndThread) {
    kivThreadObj* thread = SpawnThread(
        [](void* block) -> void* {
            delete static_cast<kivThreadStart*>(block); // nobody else would
            return nullptr;
        },
        nullptr);
    ASSERT_NE(thread, nullptr);
    JoinThread(thread); // whatever code it has
}

TEST(CheckJoinableThread, IsZeroWhileTheThreadRunsAndOneAfterEndThread) {
    gated gate;
    gate.exit_code = 3;
    kivThreadObj* thread = SpawnThread(wait_at_gate, &gate);
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(CheckJoinableThread(thread), 0);
    gate.open = true;
    EXPECT_TRUE(kiv_test::wait_until([&] { return CheckJoinableThread(thread) != 0; }));
    EXPECT_EQ(CheckJoinableThread(thread), 1);
    EXPECT_EQ(JoinThread(thread), 3);
}

TEST(SpawnThread, HandsTheThreadABlockWithTheDataAndItsHandle) {
    struct {
        void* data = nullptr;
        kivThreadObj* handle = nullptr;
        pthread_t self{};
    } seen;
    kivThreadObj* thread = SpawnThread(
        [](void* block) -> void* {
            auto* out = static_cast<decltype(seen)*>(GetThreadData(block));
            out->data = GetThreadData(block);
            out->handle = static_cast<kivThreadStart*>(block)->thread_obj;
            out->self = pthread_self();
            EndThread(0, block);
            return nullptr;
        },
        &seen);
    ASSERT_NE(thread, nullptr);
    const pthread_t identity = thread->thread;
    kivThreadObj* const handle = thread;
    EXPECT_EQ(JoinThread(thread), 0);
    EXPECT_EQ(seen.data, &seen);
    EXPECT_EQ(seen.handle, handle);
    EXPECT_NE(pthread_equal(seen.self, identity), 0);
}

TEST(SpawnThread, AsksForAJoinableThread) {
    int code = 0;
    JoinThread(SpawnThread(end_at_once, &code));
    EXPECT_EQ(detach_state, PTHREAD_CREATE_JOINABLE);
}

TEST(SpawnThread, ReturnsNullAndKeepsNothingWhenTheSystemRefuses) {
    int code = 0;
    const long before = kiv_test::live_allocations();
    creation_fails = true;
    EXPECT_EQ(SpawnThread(end_at_once, &code), nullptr);
    creation_fails = false;
    EXPECT_EQ(kiv_test::live_allocations(), before);
}

TEST(SpawnThread, ThousandsOfThreadsLeaveNothingBehind) {
    constexpr int rounds = 500;
    std::array<int, 8> codes{0, 1, 2, 3, 4, 5, 6, 7};
    std::array<kivThreadObj*, 8> threads{};
    const long before = kiv_test::live_allocations();
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < threads.size(); ++i) {
            threads[i] = SpawnThread(end_at_once, &codes[i]);
            ASSERT_NE(threads[i], nullptr);
        }
        for (std::size_t i = 0; i < threads.size(); ++i) {
            ASSERT_EQ(JoinThread(threads[i]), codes[i]);
        }
    }
    EXPECT_EQ(kiv_test::live_allocations(), before);
}

TEST(EndThread, UnwindsTheThreadsStack) {
    struct on_exit {
        std::atomic<bool>* left;
        ~on_exit() { *left = true; }
    };
    std::atomic<bool> left{false};
    kivThreadObj* thread = SpawnThread(
        [](void* block) -> void* {
            const on_exit scope{static_cast<std::atomic<bool>*>(GetThreadData(block))};
            EndThread(0, block);
            return nullptr;
        },
        &left);
    ASSERT_NE(thread, nullptr);
    JoinThread(thread);
    EXPECT_TRUE(left);
}

TEST(TerminateThread, StopsAThreadThatStillHasToBeJoined) {
    std::atomic<bool> running{false};
    kivThreadObj* thread = SpawnThread(
        [](void* block) -> void* {
            // A cancelled thread never comes to EndThread, which would free it.
            const std::unique_ptr<kivThreadStart> owned(static_cast<kivThreadStart*>(block));
            *static_cast<std::atomic<bool>*>(GetThreadData(block)) = true;
            while (true) {
                ::pause();
            }
            return nullptr;
        },
        &running);
    ASSERT_NE(thread, nullptr);
    EXPECT_TRUE(kiv_test::wait_until([&] { return running.load(); }));
    EXPECT_EQ(TerminateThread(thread), 0);
    EXPECT_EQ(CheckJoinableThread(thread), 0) << "a cancelled thread does not count as ended";
    JoinThread(thread);
}

} // namespace
