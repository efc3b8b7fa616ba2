#include "KivFramework/KivKqueue.h"
#include "KivFramework/KivLogger.h"
#include "KivFramework/KivSocket.h"

#include "tests/support/failing_allocation.h"
#include "tests/support/frame_bytes.h"
#include "tests/support/loopback.h"
#include "tests/support/scripted_socket.h"
#include "tests/support/transfers.h"
#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace std::string_literals;
using namespace KivFramework;
using namespace KivFramework::KivSocket;
using kiv_test::closed_descriptor;
using kiv_test::little_endian;
using kiv_test::local_connection;
using kiv_test::script_recv;
using kiv_test::script_send;
using kiv_test::unique_fd;
using kiv_test::zlib_stream;

// What the library asked of the queue, and what the queue answers.
struct queue_call {
    int kq = -1;
    struct kevent change {};
    int change_count = 0;
    int event_count = 0;
    bool mutex_was_free = false;
};
std::vector<queue_call> queue_calls;
int queue_error = 0;
pthread_mutex_t* watched_mutex = nullptr;

struct log_call {
    bool null_logger = false;
    int level = 0;
    std::string module;
    std::string text;
};
std::vector<log_call> log_calls;

// Moves the process's clock to a fixed time until the end of the scope.
std::atomic<std::time_t> fixed_time = -1;
struct clock_at {
    explicit clock_at(std::time_t time) { fixed_time = time; }
    ~clock_at() { fixed_time = -1; }
    clock_at(const clock_at&) = delete;
    clock_at& operator=(const clock_at&) = delete;
};

} // namespace

// These stand in for the library's and the system's functions of the same names.
int KivFramework::kevent(int kq, const struct kevent* changes, int change_count,
                         struct kevent* /*events*/, int event_count,
                         const struct timespec* /*timeout*/) {
    queue_call call;
    call.kq = kq;
    call.change = changes[0];
    call.change_count = change_count;
    call.event_count = event_count;
    if (watched_mutex != nullptr && pthread_mutex_trylock(watched_mutex) == 0) {
        call.mutex_was_free = true;
        pthread_mutex_unlock(watched_mutex);
    }
    queue_calls.push_back(call);
    if (queue_error != 0) {
        errno = queue_error;
        return -1;
    }
    return 0;
}

void KivFramework::KivLogger::AddLogEntry(kivLogger* logger, int level, const char* module,
                                          const char* format, ...) {
    char text[512];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    log_calls.push_back({logger == nullptr, level, module, text});
}

extern "C" std::time_t time(std::time_t* result) noexcept {
    std::time_t now = fixed_time;
    if (now == -1) {
        timespec precise{};
        ::clock_gettime(CLOCK_REALTIME, &precise);
        now = precise.tv_sec;
    }
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

namespace {

// A stream over one end of a connection.
struct connected_stream {
    connected_stream() { stream.socket = connection.near.get(); }

    local_connection connection;
    kivSocketStream stream;

    // Registers a queue whose calls are recorded from here on.
    void watch_queue() {
        stream.RegisterKq(some_queue);
        watched_mutex = stream.mutex;
        queue_calls.clear();
        log_calls.clear();
    }

    ~connected_stream() {
        watched_mutex = nullptr;
        queue_error = 0;
        kiv_test::take_sent_bytes();
        EXPECT_EQ(kiv_test::drop_script(), 0U) << "scripted calls that never came";
    }

    connected_stream(const connected_stream&) = delete;
    connected_stream& operator=(const connected_stream&) = delete;

    static constexpr int some_queue = 77;
};

bool mutex_is_free(const kivSocketStream& stream) {
    if (pthread_mutex_trylock(stream.mutex) != 0) {
        return false;
    }
    pthread_mutex_unlock(stream.mutex);
    return true;
}

// Whether the other side has seen the end of the connection.
bool sees_end(const unique_fd& socket) {
    pollfd ready = {socket.get(), POLLIN, 0};
    char byte = 0;
    return ::poll(&ready, 1, 0) == 1 && ::read(socket.get(), &byte, 1) == 0;
}

std::string outgoing(const kivSocketStream& stream) {
    return {stream.outBuffer, stream.outUsed};
}

std::string incoming(const kivSocketStream& stream) {
    return {stream.inBuffer, stream.inUsed};
}

std::string frame(char encoding, const std::string& payload) {
    return encoding + little_endian(payload.size()) + payload;
}

std::string compressed_frame(char type, std::uint64_t declared, const std::string& stream) {
    return frame(2, type + little_endian(declared) + stream);
}

void receive(kivSocketStream& stream, const std::string& bytes) {
    for (std::size_t i = 0; i < bytes.size(); i += 4096) {
        script_recv(bytes.substr(i, 4096));
        ASSERT_GT(stream.Read(), 0);
    }
}

// The next message, `size` bytes of it.
std::string next_message(kivSocketStream& stream, std::size_t size) {
    char* const message = stream.GetNextMessage();
    if (message == nullptr) {
        ADD_FAILURE() << "no message";
        return {};
    }
    std::string bytes(message, size);
    destroyEncodedMessage(message);
    return bytes;
}

// Queues plain messages whose frames have `size` bytes together.
void fill_outgoing(kivSocketStream& stream, std::size_t size) {
    constexpr std::size_t smallest_frame = 6;
    constexpr std::size_t longest_plain_frame = 16;
    while (size > 0) {
        const std::size_t rest = size - std::min(size, longest_plain_frame);
        const std::size_t next = rest == 0               ? size
                                 : rest < smallest_frame ? longest_plain_frame - smallest_frame
                                                         : longest_plain_frame;
        ASSERT_TRUE(stream.AddMessage("T", std::string(next - smallest_frame, 'b').c_str()));
        size -= next;
    }
}

TEST(KivSocketStream, HasTheDocumentedFieldsInTheirOrder) {
    if (sizeof(void*) != 8) {
        GTEST_SKIP() << "the offsets are those of a system with pointers of 64 bits";
    }
    const kivSocketStream stream;
    const auto offset = [&stream](const void* field) {
        return static_cast<const char*>(field) - reinterpret_cast<const char*>(&stream);
    };
    EXPECT_EQ(offset(&stream.outBuffer), 0);
    EXPECT_EQ(offset(&stream.inBuffer), 8);
    EXPECT_EQ(offset(&stream.inUsed), 16);
    EXPECT_EQ(offset(&stream.outUsed), 20);
    EXPECT_EQ(offset(&stream.inSize), 24);
    EXPECT_EQ(offset(&stream.outSize), 28);
    EXPECT_EQ(offset(&stream.mutex), 32);
    EXPECT_EQ(offset(&stream.lastHeartBeat), 40);
    EXPECT_EQ(offset(&stream.maxInSize), 48);
    EXPECT_EQ(offset(&stream.maxOutSize), 52);
    EXPECT_EQ(offset(&stream.bufferCheck), 56);
    EXPECT_EQ(offset(&stream.sentCounter), 64);
    EXPECT_EQ(offset(&stream.receivedCounter), 72);
    EXPECT_EQ(offset(&stream.countersMutex), 80);
    EXPECT_EQ(offset(&stream.kq), 88);
    EXPECT_EQ(offset(&stream.shutdownByUs), 92);
    EXPECT_EQ(offset(&stream.closed), 96);
    EXPECT_EQ(offset(&stream.socket), 100);
    EXPECT_EQ(sizeof(kivSocketStream), 112U);
}

TEST(KivSocketStream, IsOneTypeInBothNamespaces) {
    EXPECT_TRUE((std::is_same_v<KivFramework::kivSocketStream, KivSocket::kivSocketStream>));
}

TEST(KivSocketStream, StartsEmptyOpenAndUnregistered) {
    const clock_at now(1'000'000);
    const kivSocketStream stream;
    EXPECT_NE(stream.outBuffer, nullptr);
    ASSERT_NE(stream.inBuffer, nullptr);
    EXPECT_EQ(stream.inBuffer[0], 0);
    EXPECT_EQ(stream.inUsed, 0U);
    EXPECT_EQ(stream.outUsed, 0U);
    EXPECT_EQ(stream.inSize, 2049U);
    EXPECT_EQ(stream.outSize, 2049U);
    EXPECT_TRUE(mutex_is_free(stream));
    EXPECT_EQ(stream.lastHeartBeat, 1'000'000);
    EXPECT_EQ(stream.maxInSize, 128000U);
    EXPECT_EQ(stream.maxOutSize, 128000U);
    EXPECT_EQ(stream.bufferCheck, 1);
    EXPECT_EQ(stream.sentCounter, nullptr);
    EXPECT_EQ(stream.receivedCounter, nullptr);
    EXPECT_EQ(stream.countersMutex, nullptr);
    EXPECT_EQ(stream.kq, -1);
    EXPECT_EQ(stream.shutdownByUs, 0);
    EXPECT_EQ(stream.closed, 0);
    EXPECT_EQ(stream.socket, -1);
}

TEST(KivSocketStream, LeavesItsSocketOpenWhenDestroyed) {
    const local_connection connection;
    {
        kivSocketStream stream;
        stream.socket = connection.near.get();
    }
    EXPECT_EQ(::send(connection.near.get(), "x", 1, 0), 1);
}

TEST(KivSocketStream, MakesTheWholeDocumentedSizeOfItsBuffersAddressable) {
    connected_stream peer;
    peer.stream.SetBufferCheck(false);
    for (int i = 0; i < 2000; ++i) {
        ASSERT_TRUE(peer.stream.AddMessage("T", "0123456789"));
        script_send(11);
        ASSERT_EQ(peer.stream.Write(), 11);
        receive(peer.stream, "\1\x0b\0\0\0T0123456789\1\x0b\0\0\0T"s);
        peer.stream.inUsed -= 6; // the started one is not needed
        next_message(peer.stream, 12);
        // Only the address sanitizer and the allocator can object.
        std::memset(peer.stream.inBuffer + peer.stream.inUsed, 'i',
                    peer.stream.inSize - peer.stream.inUsed);
        std::memset(peer.stream.outBuffer + peer.stream.outUsed, 'o',
                    peer.stream.outSize - peer.stream.outUsed);
    }
}

TEST(RegisterKq, StoresTheQueueAndAsksItForReadReadiness) {
    connected_stream peer;
    queue_calls.clear();
    peer.stream.RegisterKq(77);
    EXPECT_EQ(peer.stream.kq, 77);
    ASSERT_EQ(queue_calls.size(), 1U);
    EXPECT_EQ(queue_calls[0].kq, 77);
    EXPECT_EQ(queue_calls[0].change_count, 1);
    EXPECT_EQ(queue_calls[0].event_count, 0);
    EXPECT_EQ(queue_calls[0].change.ident, static_cast<std::uintptr_t>(peer.stream.socket));
    EXPECT_EQ(queue_calls[0].change.filter, EVFILT_READ);
    EXPECT_EQ(queue_calls[0].change.flags, EV_ADD);
    EXPECT_EQ(queue_calls[0].change.fflags, 0U);
    EXPECT_EQ(queue_calls[0].change.data, 0);
    EXPECT_EQ(queue_calls[0].change.udata, &peer.stream);
}

TEST(RegisterKq, LogsAFailureToNoLogger) {
    connected_stream peer;
    log_calls.clear();
    queue_error = ENOMEM;
    peer.stream.RegisterKq(77);
    EXPECT_EQ(peer.stream.kq, 77);
    ASSERT_EQ(log_calls.size(), 1U);
    EXPECT_TRUE(log_calls[0].null_logger);
    EXPECT_EQ(log_calls[0].level, 1);
    EXPECT_EQ(log_calls[0].module, "KivSocket");
    EXPECT_EQ(log_calls[0].text, "Cannot kevent() on client listening socket");
}

TEST(RegisterKq, LeavesNoErrnoBehindThatWouldKeepASocketOpen) {
    connected_stream peer;
    queue_error = EBADF;
    errno = 0;
    peer.stream.RegisterKq(-1);
    EXPECT_EQ(errno, 0);
}

TEST(RegisterCounters, StoresAnyOfTheThreePointers) {
    kivSocketStream stream;
    long long sent = 0;
    long long received = 0;
    pthread_mutex_t* lock = nullptr;
    stream.RegisterCounters(&sent, &received, &lock);
    EXPECT_EQ(stream.sentCounter, &sent);
    EXPECT_EQ(stream.receivedCounter, &received);
    EXPECT_EQ(stream.countersMutex, &lock);
    stream.RegisterCounters(nullptr, nullptr, nullptr);
    EXPECT_EQ(stream.sentCounter, nullptr);
    EXPECT_EQ(stream.receivedCounter, nullptr);
    EXPECT_EQ(stream.countersMutex, nullptr);
}

TEST(AddMessage, AppendsOneFrameToTheOutgoingBuffer) {
    connected_stream peer;
    EXPECT_TRUE(peer.stream.AddMessage("Hello", "abc"));
    EXPECT_TRUE(peer.stream.AddMessage("P", nullptr));
    EXPECT_TRUE(peer.stream.AddMessage("Z", std::string(100, 'z').c_str()));
    EXPECT_EQ(outgoing(peer.stream),
              "\1\4\0\0\0Habc\0\1\0\0\0P"s +
                  compressed_frame('Z', 100, zlib_stream(std::string(100, 'z'))));
    EXPECT_EQ(peer.stream.outSize, 2049U);
}

TEST(AddMessage, ReturnsFalseOnAClosedStream) {
    connected_stream peer;
    peer.stream.closed = 1;
    EXPECT_FALSE(peer.stream.AddMessage("T", "x"));
    EXPECT_EQ(peer.stream.outUsed, 0U);
}

TEST(AddMessage, ReturnsFalseWithoutAMutex) {
    connected_stream peer;
    pthread_mutex_t* const mutex = std::exchange(peer.stream.mutex, nullptr);
    EXPECT_FALSE(peer.stream.AddMessage("T", "x"));
    EXPECT_EQ(peer.stream.outUsed, 0U);
    peer.stream.mutex = mutex;
}

TEST(AddMessage, KeepsOneByteOfTheBufferFree) {
    for (const std::size_t size : {2048U, 2049U}) {
        connected_stream peer;
        peer.stream.SetMaxOutgoingBufferSize(0); // to grow is to be closed
        fill_outgoing(peer.stream, size - 6);
        EXPECT_EQ(peer.stream.AddMessage("T", ""), size == 2048);
        EXPECT_EQ(peer.stream.outSize, 2049U);
    }
}

TEST(AddMessage, GrowsTheBufferToExactlyTheBytesHeld) {
    connected_stream peer;
    fill_outgoing(peer.stream, 2048);
    ASSERT_TRUE(peer.stream.AddMessage("T", nullptr));
    EXPECT_EQ(peer.stream.outUsed, 2054U);
    EXPECT_EQ(peer.stream.outSize, 2054U);
    ASSERT_TRUE(peer.stream.AddMessage("T", "abc"));
    EXPECT_EQ(peer.stream.outUsed, 2063U);
    EXPECT_EQ(peer.stream.outSize, 2063U);
    EXPECT_EQ(outgoing(peer.stream).substr(2048), "\0\1\0\0\0T\1\4\0\0\0Tabc"s);
}

TEST(AddMessage, TakesExactlyTheLimit) {
    connected_stream peer;
    fill_outgoing(peer.stream, 128000);
    EXPECT_EQ(peer.stream.outUsed, 128000U);
    EXPECT_EQ(peer.stream.closed, 0);
}

TEST(AddMessage, ClosesTheStreamWhenTheMessagePassesTheLimitByOneByte) {
    connected_stream peer;
    fill_outgoing(peer.stream, 128000 - 6);
    EXPECT_FALSE(peer.stream.AddMessage("T", "") ? peer.stream.AddMessage("T", "")
                                                 : true); // the limit is reached, and then passed
    EXPECT_EQ(peer.stream.outUsed, 128000U);
    EXPECT_EQ(peer.stream.closed, 1);
    EXPECT_EQ(peer.stream.shutdownByUs, 1);
    EXPECT_TRUE(sees_end(peer.connection.far));
    EXPECT_TRUE(mutex_is_free(peer.stream));
    EXPECT_FALSE(peer.stream.AddMessage("T", ""));
}

TEST(AddMessage, ComparesWithTheLimitToTheByte) {
    for (const unsigned int limit : {2999U, 3000U}) {
        connected_stream peer;
        peer.stream.SetMaxOutgoingBufferSize(limit);
        fill_outgoing(peer.stream, 2990);
        EXPECT_EQ(peer.stream.AddMessage("T", "abcd"), limit == 3000);
        EXPECT_EQ(peer.stream.closed, limit == 3000 ? 0 : 1);
    }
}

TEST(AddMessage, ComparesWithTheLimitOnlyWhenTheBufferHasToGrow) {
    connected_stream peer;
    peer.stream.SetMaxOutgoingBufferSize(10);
    fill_outgoing(peer.stream, 2048);
    EXPECT_EQ(peer.stream.closed, 0);
    EXPECT_FALSE(peer.stream.AddMessage("T", ""));
    EXPECT_EQ(peer.stream.closed, 1);
}

TEST(AddMessage, HasNoLimitWithoutTheBufferCheck) {
    connected_stream peer;
    peer.stream.SetBufferCheck(false);
    fill_outgoing(peer.stream, 500'000);
    EXPECT_EQ(peer.stream.outUsed, 500'000U);
    EXPECT_EQ(peer.stream.outSize, 500'000U);
    EXPECT_EQ(peer.stream.closed, 0);
}

TEST(AddMessage, ThrowsBadAllocWhenTheBytesHeldPass32Bits) {
    connected_stream peer;
    peer.stream.SetBufferCheck(false);
    peer.stream.outUsed = 0xFFFFFFFA;
    EXPECT_THROW(peer.stream.AddMessage("T", ""), std::bad_alloc);
    EXPECT_EQ(peer.stream.outUsed, 0xFFFFFFFA);
    EXPECT_TRUE(mutex_is_free(peer.stream));
    peer.stream.outUsed = 0;
}

TEST(AddMessage, ReleasesTheMutexAndKeepsTheStreamWhenMemoryRunsOut) {
    connected_stream peer;
    fill_outgoing(peer.stream, 2048);
    std::string expected = outgoing(peer.stream);
    bool ran_out = false;
    {
        const kiv_test::failing_allocation none_left(2000);
        while (!ran_out) {
            try {
                ASSERT_TRUE(peer.stream.AddMessage("T", "x"));
                expected += frame(1, "Tx");
            } catch (const std::bad_alloc&) {
                ran_out = true;
            }
        }
    }
    EXPECT_TRUE(mutex_is_free(peer.stream));
    EXPECT_EQ(outgoing(peer.stream), expected);
    EXPECT_EQ(peer.stream.outSize, expected.size());
    EXPECT_TRUE(peer.stream.AddMessage("T", "x"));
    EXPECT_EQ(outgoing(peer.stream), expected + frame(1, "Tx"));
}

TEST(AddMessage, AsksForWriteReadinessOnceAfterTheUnlock) {
    connected_stream peer;
    peer.watch_queue();
    ASSERT_TRUE(peer.stream.AddMessage("T", "x"));
    ASSERT_EQ(queue_calls.size(), 1U);
    EXPECT_EQ(queue_calls[0].kq, connected_stream::some_queue);
    EXPECT_EQ(queue_calls[0].change_count, 1);
    EXPECT_EQ(queue_calls[0].event_count, 0);
    EXPECT_EQ(queue_calls[0].change.ident, static_cast<std::uintptr_t>(peer.stream.socket));
    EXPECT_EQ(queue_calls[0].change.filter, EVFILT_WRITE);
    EXPECT_EQ(queue_calls[0].change.flags, EV_ADD | EV_ONESHOT);
    EXPECT_EQ(queue_calls[0].change.udata, &peer.stream);
    EXPECT_TRUE(queue_calls[0].mutex_was_free);
}

TEST(AddMessage, AsksForNothingWithoutAQueue) {
    connected_stream peer;
    queue_calls.clear();
    ASSERT_TRUE(peer.stream.AddMessage("T", "x"));
    EXPECT_TRUE(queue_calls.empty());
}

TEST(AddMessage, AsksForNothingWhenTheMessagePassedTheLimit) {
    connected_stream peer;
    peer.stream.SetMaxOutgoingBufferSize(0);
    peer.watch_queue();
    fill_outgoing(peer.stream, 2048);
    queue_calls.clear();
    EXPECT_FALSE(peer.stream.AddMessage("T", "x"));
    EXPECT_TRUE(queue_calls.empty());
}

TEST(AddMessage, ReturnsTrueWhateverTheQueueAnswersAndLogsToNoLogger) {
    connected_stream peer;
    peer.watch_queue();
    queue_error = ENOENT;
    EXPECT_TRUE(peer.stream.AddMessage("T", "x"));
    ASSERT_EQ(log_calls.size(), 1U);
    EXPECT_TRUE(log_calls[0].null_logger);
    EXPECT_EQ(log_calls[0].level, 1);
    EXPECT_EQ(log_calls[0].module, "KivSocket");
    EXPECT_EQ(log_calls[0].text, "kevent(77:" + std::to_string(peer.stream.socket) +
                                     ") error on EV_ADD [./KivFramework/KivSocket:232:2]\n");
}

TEST(Read, GrowsAFreshBufferTo6146BytesBeforeItsFirstReceive) {
    connected_stream peer;
    script_recv(-1, EAGAIN);
    EXPECT_EQ(peer.stream.Read(), -1);
    EXPECT_EQ(peer.stream.inSize, 6146U);
    EXPECT_EQ(peer.stream.inUsed, 0U);
}

TEST(Read, ReceivesAtMost4096BytesAndPutsANulBehindThem) {
    connected_stream peer;
    script_recv(std::string(5000, 'r'));
    EXPECT_EQ(peer.stream.Read(), 4096);
    EXPECT_EQ(incoming(peer.stream), std::string(4096, 'r'));
    EXPECT_EQ(peer.stream.inBuffer[4096], 0);
}

TEST(Read, AppendsWhatTheSocketHolds) {
    connected_stream peer;
    ASSERT_TRUE(kiv_test::write_fully(peer.connection.far.get(), "abc", 3));
    EXPECT_EQ(peer.stream.Read(), 3);
    ASSERT_TRUE(kiv_test::write_fully(peer.connection.far.get(), "de", 2));
    EXPECT_EQ(peer.stream.Read(), 2);
    EXPECT_STREQ(peer.stream.inBuffer, "abcde");
    EXPECT_EQ(peer.stream.Read(), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(Read, GrowsBy4097BytesWhen4096OrFewerAreFree) {
    connected_stream peer;
    receive(peer.stream, std::string(2049, 'r')); // 4097 stay free
    receive(peer.stream, "1");
    EXPECT_EQ(peer.stream.inSize, 6146U);
    receive(peer.stream, "2"); // 4096 were free
    EXPECT_EQ(peer.stream.inSize, 10243U);
    EXPECT_EQ(incoming(peer.stream), std::string(2049, 'r') + "12");
}

TEST(Read, GrowsUpToExactlyTheLimit) {
    for (const unsigned int limit : {6145U, 6146U}) {
        connected_stream peer;
        peer.stream.SetMaxIncomingBufferSize(limit);
        script_recv("x");
        EXPECT_EQ(peer.stream.Read(), limit == 6146 ? 1 : 0);
        EXPECT_EQ(peer.stream.closed, limit == 6146 ? 0 : 1);
        EXPECT_EQ(peer.stream.shutdownByUs, limit == 6146 ? 0 : 1);
        EXPECT_EQ(sees_end(peer.connection.far), limit == 6145);
        EXPECT_TRUE(mutex_is_free(peer.stream));
        EXPECT_EQ(peer.stream.inSize, limit == 6146 ? 6146U : 2049U);
        EXPECT_EQ(kiv_test::drop_script(), limit == 6146 ? 0U : 1U); // nothing more is received
    }
}

TEST(Read, ClosesTheStreamBeforeItHolds128000Bytes) {
    connected_stream peer;
    const std::string chunk(4096, 'r');
    int result = 0;
    int reads = 0;
    do {
        script_recv(chunk);
        result = peer.stream.Read();
        ++reads;
    } while (result > 0);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(reads, 31); // 2049 + 31 * 4097 would pass the limit
    EXPECT_EQ(peer.stream.inSize, 2049U + 30 * 4097);
    EXPECT_EQ(peer.stream.inUsed, 30U * 4096);
    EXPECT_EQ(peer.stream.closed, 1);
    EXPECT_EQ(peer.stream.shutdownByUs, 1);
    EXPECT_EQ(kiv_test::drop_script(), 1U); // the last one was not received
}

TEST(Read, HasNoLimitWithoutTheBufferCheck) {
    connected_stream peer;
    peer.stream.SetBufferCheck(false);
    receive(peer.stream, std::string(400'000, 'r'));
    EXPECT_EQ(peer.stream.inUsed, 400'000U);
    EXPECT_EQ(peer.stream.closed, 0);
}

TEST(Read, ThrowsBadAllocWhenTheSizePasses32Bits) {
    connected_stream peer;
    peer.stream.SetBufferCheck(false);
    peer.stream.inSize = 0xFFFFF000;
    peer.stream.inUsed = 0xFFFFF000;
    EXPECT_THROW(peer.stream.Read(), std::bad_alloc);
    EXPECT_TRUE(mutex_is_free(peer.stream));
    peer.stream.inSize = 2049;
    peer.stream.inUsed = 0;
}

TEST(Read, ReleasesTheMutexAndKeepsTheStreamWhenMemoryRunsOut) {
    connected_stream peer;
    receive(peer.stream, std::string(4096, 'r'));
    receive(peer.stream, std::string(4096, 'r'));
    {
        const kiv_test::failing_allocation none_left(2000);
        for (int i = 0; i < 3; ++i) {
            try {
                receive(peer.stream, std::string(4096, 'r'));
            } catch (const std::bad_alloc&) {
                EXPECT_EQ(kiv_test::drop_script(), 1U);
                break;
            }
        }
    }
    EXPECT_TRUE(mutex_is_free(peer.stream));
    EXPECT_EQ(incoming(peer.stream), std::string(peer.stream.inUsed, 'r'));
    receive(peer.stream, "x");
}

TEST(Read, Returns0AndLeavesTheStreamOpenAfterThePeerClosed) {
    connected_stream peer;
    peer.stream.shutdownByUs = 1;
    receive(peer.stream, "abc");
    peer.connection.far.reset();
    EXPECT_EQ(peer.stream.Read(), 0);
    EXPECT_EQ(peer.stream.closed, 0);
    EXPECT_EQ(peer.stream.shutdownByUs, 0);
    EXPECT_EQ(incoming(peer.stream), "abc");
    EXPECT_TRUE(mutex_is_free(peer.stream));
}

TEST(Read, ShutsTheSocketDownAfterThePeerClosed) {
    connected_stream peer;
    script_recv(0, 0);
    EXPECT_EQ(peer.stream.Read(), 0);
    EXPECT_TRUE(sees_end(peer.connection.far));
}

TEST(Read, TreatsEveryErrorButEagainLikeTheEndOfThePeer) {
    for (const int error : {ECONNRESET, EINTR, ENOTCONN, EBADF}) {
        connected_stream peer;
        peer.stream.shutdownByUs = 1;
        script_recv(-1, error);
        EXPECT_EQ(peer.stream.Read(), 0);
        EXPECT_EQ(peer.stream.closed, 0);
        EXPECT_EQ(peer.stream.shutdownByUs, 0);
        EXPECT_TRUE(sees_end(peer.connection.far));
        EXPECT_TRUE(mutex_is_free(peer.stream));
    }
}

TEST(Read, AsksForReadReadinessWhenThereIsNothingToReceive) {
    connected_stream peer;
    peer.watch_queue();
    EXPECT_EQ(peer.stream.Read(), -1);
    ASSERT_EQ(queue_calls.size(), 1U);
    EXPECT_EQ(queue_calls[0].change.filter, EVFILT_READ);
    EXPECT_EQ(queue_calls[0].change.flags, EV_ADD);
    EXPECT_EQ(queue_calls[0].change.udata, &peer.stream);
    EXPECT_FALSE(queue_calls[0].mutex_was_free);
}

TEST(Read, AsksForWriteReadinessInsteadWhileOutputIsPending) {
    connected_stream peer;
    ASSERT_TRUE(peer.stream.AddMessage("T", "x"));
    peer.watch_queue();
    EXPECT_EQ(peer.stream.Read(), -1);
    ASSERT_EQ(queue_calls.size(), 1U);
    EXPECT_EQ(queue_calls[0].change.filter, EVFILT_WRITE);
    EXPECT_EQ(queue_calls[0].change.flags, EV_ADD | EV_ONESHOT);
}

TEST(Read, AsksForNothingAfterItReceivedOrFailed) {
    connected_stream peer;
    peer.watch_queue();
    receive(peer.stream, "x");
    script_recv(-1, ECONNRESET);
    EXPECT_EQ(peer.stream.Read(), 0);
    EXPECT_TRUE(queue_calls.empty());
}

TEST(Read, LogsAFailureOfTheQueueToNoLoggerAndKeepsErrno) {
    connected_stream peer;
    peer.watch_queue();
    queue_error = EBADF;
    EXPECT_EQ(peer.stream.Read(), -1);
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_EQ(log_calls.size(), 1U);
    EXPECT_TRUE(log_calls[0].null_logger);
    EXPECT_EQ(log_calls[0].text, "kevent(77:" + std::to_string(peer.stream.socket) +
                                     ") error on EV_ADD [./KivFramework/KivSocket:319:9]\n");
}

TEST(Read, Returns0OnAClosedStreamAndWithoutAMutex) {
    connected_stream peer;
    ASSERT_TRUE(kiv_test::write_fully(peer.connection.far.get(), "a", 1));
    peer.stream.closed = 1;
    EXPECT_EQ(peer.stream.Read(), 0);
    peer.stream.closed = 0;
    pthread_mutex_t* const mutex = std::exchange(peer.stream.mutex, nullptr);
    EXPECT_EQ(peer.stream.Read(), 0);
    peer.stream.mutex = mutex;
    EXPECT_EQ(peer.stream.inSize, 2049U);
    EXPECT_EQ(peer.stream.Read(), 1);
}

TEST(Read, AddsToTheReceivedCounterWithAndWithoutALock) {
    connected_stream peer;
    long long received = 10;
    peer.stream.RegisterCounters(nullptr, &received, nullptr);
    receive(peer.stream, "abc");
    EXPECT_EQ(received, 13);
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_t* handle = &lock;
    peer.stream.RegisterCounters(nullptr, &received, &handle);
    receive(peer.stream, "de");
    EXPECT_EQ(received, 15);
    EXPECT_EQ(pthread_mutex_trylock(&lock), 0);
    pthread_mutex_unlock(&lock);
    handle = nullptr; // a lock that is not made yet
    receive(peer.stream, "f");
    EXPECT_EQ(received, 16);
}

TEST(Read, ReleasesTheMutexWhenItsThreadIsCancelled) {
    connected_stream peer;
    ASSERT_EQ(::fcntl(peer.stream.socket, F_SETFL, 0), 0); // so that the receive blocks
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void* stream) -> void* {
                      sigset_t all;
                      sigfillset(&all); // one that the host handles would end the receive
                      pthread_sigmask(SIG_BLOCK, &all, nullptr);
                      static_cast<kivSocketStream*>(stream)->Read();
                      return nullptr;
                  },
                  &peer.stream),
              0);
    ASSERT_TRUE(kiv_test::wait_until([&peer] { return !mutex_is_free(peer.stream); }));
    ASSERT_EQ(pthread_cancel(thread), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_TRUE(mutex_is_free(peer.stream));
}

TEST(Write, ReturnsMinusOneAndSendsNothingOnAnEmptyBuffer) {
    connected_stream peer;
    peer.watch_queue();
    EXPECT_EQ(peer.stream.Write(), -1);
    EXPECT_TRUE(queue_calls.empty());
    EXPECT_TRUE(mutex_is_free(peer.stream));
    char byte = 0;
    EXPECT_EQ(::recv(peer.connection.far.get(), &byte, 1, 0), -1);
}

TEST(Write, HandsEverythingPendingToOneSend) {
    connected_stream peer;
    ASSERT_TRUE(peer.stream.AddMessage("a", "bc"));
    ASSERT_TRUE(peer.stream.AddMessage("d", "ef"));
    EXPECT_EQ(peer.stream.Write(), 16);
    EXPECT_EQ(peer.stream.outUsed, 0U);
    char received[64];
    ASSERT_EQ(::recv(peer.connection.far.get(), received, sizeof(received), 0), 16);
    EXPECT_EQ(std::string(received, 16), "\1\3\0\0\0abc\1\3\0\0\0def"s);
}

TEST(Write, KeepsTheUnsentRestAtTheFront) {
    connected_stream peer;
    ASSERT_TRUE(peer.stream.AddMessage("a", "bc"));
    ASSERT_TRUE(peer.stream.AddMessage("d", "ef"));
    script_send(3);
    EXPECT_EQ(peer.stream.Write(), 3);
    EXPECT_EQ(outgoing(peer.stream), "\0\0abc\1\3\0\0\0def"s);
    ASSERT_TRUE(peer.stream.AddMessage("g", "h"));
    EXPECT_EQ(outgoing(peer.stream), "\0\0abc\1\3\0\0\0def\1\2\0\0\0gh"s);
    EXPECT_EQ(peer.stream.outSize, 2049U);
    script_send(19);
    EXPECT_EQ(peer.stream.Write(), 19);
    EXPECT_EQ(outgoing(peer.stream), "h");
    script_send(1);
    EXPECT_EQ(peer.stream.Write(), 1);
    EXPECT_EQ(kiv_test::take_sent_bytes(), "\1\3\0\0\0abc\1\3\0\0\0def\1\2\0\0\0gh"s);
}

TEST(Write, SendsALargeBufferInTheOrderItWasQueuedThroughASmallSocket) {
    connected_stream peer;
    peer.stream.SetBufferCheck(false);
    std::string expected;
    for (int i = 0; i < 20'000; ++i) {
        const std::string body = std::to_string(i);
        ASSERT_TRUE(peer.stream.AddMessage("n", body.c_str()));
        expected += frame(1, "n" + body);
    }
    std::string received;
    char chunk[3000];
    while (received.size() < expected.size()) {
        const int sent = peer.stream.Write();
        ASSERT_TRUE(sent > 0 || (sent == -1 && peer.stream.closed == 0));
        ASSERT_EQ(
            outgoing(peer.stream)
                .compare(0, std::string::npos, expected, expected.size() - peer.stream.outUsed),
            0);
        const ssize_t size = ::recv(peer.connection.far.get(), chunk, sizeof(chunk), 0);
        ASSERT_GT(size, 0);
        received.append(chunk, static_cast<std::size_t>(size));
    }
    EXPECT_EQ(received, expected);
    EXPECT_EQ(peer.stream.outUsed, 0U);
}

TEST(Write, ReturnsWhatSendReturnedOnEagain) {
    for (const int answer : {-1, 0}) {
        connected_stream peer;
        peer.stream.shutdownByUs = 1;
        ASSERT_TRUE(peer.stream.AddMessage("a", "bc"));
        peer.watch_queue();
        script_send(answer, EAGAIN);
        EXPECT_EQ(peer.stream.Write(), answer);
        EXPECT_EQ(peer.stream.outUsed, 8U);
        EXPECT_EQ(peer.stream.closed, 0);
        EXPECT_EQ(peer.stream.shutdownByUs, 1);
        ASSERT_EQ(queue_calls.size(), 1U);
        EXPECT_EQ(queue_calls[0].change.filter, EVFILT_WRITE);
        EXPECT_TRUE(mutex_is_free(peer.stream));
    }
}

TEST(Write, ClosesTheStreamOnEveryOtherErrnoEvenWhenSendReturned0) {
    for (const int answer : {-1, 0}) {
        for (const int error : {EPIPE, EINTR, ECONNRESET, 0}) {
            connected_stream peer;
            peer.stream.shutdownByUs = 1;
            ASSERT_TRUE(peer.stream.AddMessage("a", "bc"));
            peer.watch_queue();
            script_send(answer, error);
            EXPECT_EQ(peer.stream.Write(), 0);
            EXPECT_EQ(peer.stream.closed, 1);
            EXPECT_EQ(peer.stream.shutdownByUs, 0);
            EXPECT_EQ(peer.stream.outUsed, 8U);
            EXPECT_TRUE(sees_end(peer.connection.far));
            ASSERT_EQ(queue_calls.size(), 1U); // the update runs after an error too
            EXPECT_EQ(queue_calls[0].change.filter, EVFILT_WRITE);
            EXPECT_TRUE(mutex_is_free(peer.stream));
        }
    }
}

TEST(Write, AsksForWriteReadinessWhileARestIsPendingAndForReadReadinessAfterIt) {
    connected_stream peer;
    ASSERT_TRUE(peer.stream.AddMessage("a", "bc"));
    peer.watch_queue();
    script_send(3);
    EXPECT_EQ(peer.stream.Write(), 3);
    script_send(100);
    EXPECT_EQ(peer.stream.Write(), 5);
    ASSERT_EQ(queue_calls.size(), 2U);
    EXPECT_EQ(queue_calls[0].change.filter, EVFILT_WRITE);
    EXPECT_EQ(queue_calls[0].change.flags, EV_ADD | EV_ONESHOT);
    EXPECT_FALSE(queue_calls[0].mutex_was_free);
    EXPECT_EQ(queue_calls[1].change.filter, EVFILT_READ);
    EXPECT_EQ(queue_calls[1].change.flags, EV_ADD);
    EXPECT_FALSE(queue_calls[1].mutex_was_free);
}

TEST(Write, LogsAFailureOfTheQueueToNoLogger) {
    connected_stream peer;
    ASSERT_TRUE(peer.stream.AddMessage("a", "bc"));
    peer.watch_queue();
    queue_error = ENOENT;
    EXPECT_EQ(peer.stream.Write(), 8);
    ASSERT_EQ(log_calls.size(), 1U);
    EXPECT_TRUE(log_calls[0].null_logger);
    EXPECT_EQ(log_calls[0].text, "kevent(77:" + std::to_string(peer.stream.socket) +
                                     ") error on EV_ADD [./KivFramework/KivSocket:388:2]\n");
}

TEST(Write, NeverRaisesSigpipe) {
    connected_stream peer;
    ASSERT_TRUE(peer.stream.AddMessage("a", "bc"));
    peer.connection.far.reset();
    EXPECT_EQ(peer.stream.Write(), 0);
    EXPECT_EQ(peer.stream.closed, 1);
}

TEST(Write, Returns0OnAClosedStreamAndWithoutAMutex) {
    connected_stream peer;
    ASSERT_TRUE(peer.stream.AddMessage("a", "bc"));
    peer.stream.closed = 1;
    EXPECT_EQ(peer.stream.Write(), 0);
    peer.stream.closed = 0;
    pthread_mutex_t* const mutex = std::exchange(peer.stream.mutex, nullptr);
    EXPECT_EQ(peer.stream.Write(), 0);
    peer.stream.mutex = mutex;
    EXPECT_EQ(peer.stream.outUsed, 8U);
}

TEST(Write, AddsToTheSentCounterUnderTheLockOfTheCountersInsideItsOwn) {
    connected_stream peer;
    ASSERT_TRUE(peer.stream.AddMessage("a", "bc"));
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_t* handle = &lock;
    long long sent = 10;
    peer.stream.RegisterCounters(&sent, nullptr, &handle);

    pthread_mutex_lock(&lock);
    std::thread writer([&peer] { EXPECT_EQ(peer.stream.Write(), 8); });
    char received[64];
    ssize_t size = -1;
    EXPECT_TRUE(kiv_test::wait_until([&] {
        size = ::recv(peer.connection.far.get(), received, sizeof(received), 0);
        return size != -1;
    }));
    EXPECT_EQ(size, 8);
    EXPECT_FALSE(mutex_is_free(peer.stream)); // the writer waits for the second lock
    EXPECT_EQ(sent, 10);
    pthread_mutex_unlock(&lock);
    writer.join();
    EXPECT_EQ(sent, 18);
    EXPECT_TRUE(mutex_is_free(peer.stream));
}

TEST(GetNextMessage, GivesTheTypeTheBodyAndANul) {
    connected_stream peer;
    receive(peer.stream,
            frame(1, "Habc") +
                frame(2, "Z" + little_endian(200) + zlib_stream(std::string(200, 'z'))) +
                frame(0, "P"));
    EXPECT_EQ(next_message(peer.stream, 5), "Habc\0"s);
    EXPECT_EQ(next_message(peer.stream, 202), "Z" + std::string(200, 'z') + '\0');
    EXPECT_EQ(next_message(peer.stream, 2), "P\0"s);
    EXPECT_EQ(peer.stream.GetNextMessage(), nullptr);
    EXPECT_TRUE(mutex_is_free(peer.stream));
}

TEST(GetNextMessage, KeepsHalfAFrameAtTheFrontWithANulBehindIt) {
    connected_stream peer;
    receive(peer.stream, frame(1, "Habc") + frame(1, "Idef").substr(0, 7));
    EXPECT_EQ(next_message(peer.stream, 5), "Habc\0"s);
    EXPECT_EQ(incoming(peer.stream), "\1\4\0\0\0Id"s);
    EXPECT_EQ(peer.stream.inBuffer[7], 0);
    EXPECT_EQ(peer.stream.GetNextMessage(), nullptr);
    EXPECT_EQ(incoming(peer.stream), "\1\4\0\0\0Id"s);
    receive(peer.stream, "ef");
    EXPECT_EQ(next_message(peer.stream, 5), "Idef\0"s);
    EXPECT_EQ(peer.stream.inBuffer[0], 0);
}

TEST(GetNextMessage, TakesFramesThatArriveSplitAtAnyByte) {
    const std::string frames = frame(1, "Habc") +
                               compressed_frame('Z', 50, zlib_stream(std::string(50, 'z'))) +
                               frame(0, "P");
    for (std::size_t first = 0; first <= frames.size(); ++first) {
        for (std::size_t second = first; second <= frames.size(); ++second) {
            connected_stream peer;
            std::string types;
            for (const std::string& part :
                 {frames.substr(0, first), frames.substr(first, second - first),
                  frames.substr(second)}) {
                receive(peer.stream, part);
                while (char* const message = peer.stream.GetNextMessage()) {
                    types += message;
                    destroyEncodedMessage(message);
                }
            }
            ASSERT_EQ(types, "HabcZ" + std::string(50, 'z') + "P") << first << ", " << second;
        }
    }
}

TEST(GetNextMessage, TakesNothingWhileFewerThan6BytesAreHeld) {
    connected_stream peer;
    receive(peer.stream, "\0\0\0\0\0"s); // a whole frame of no payload would have 5
    EXPECT_EQ(peer.stream.GetNextMessage(), nullptr);
    EXPECT_EQ(peer.stream.inUsed, 5U);
}

TEST(GetNextMessage, ReadsAPayloadOfNoBytesAsType0) {
    connected_stream peer;
    receive(peer.stream, "\0\0\0\0\0"s + frame(1, "Ta"));
    EXPECT_EQ(next_message(peer.stream, 2), "\0\0"s);
    EXPECT_EQ(next_message(peer.stream, 3), "Ta\0"s);
}

TEST(GetNextMessage, ReturnsUnknownEncodingsPlain) {
    connected_stream peer;
    receive(peer.stream, frame(3, "Tabc") + frame('\xff', "Udef") + frame(0, "Vghi"));
    EXPECT_EQ(next_message(peer.stream, 5), "Tabc\0"s);
    EXPECT_EQ(next_message(peer.stream, 5), "Udef\0"s);
    EXPECT_EQ(next_message(peer.stream, 5), "Vghi\0"s);
}

TEST(GetNextMessage, GivesBodiesWithNulsWhole) {
    connected_stream peer;
    receive(peer.stream, frame(1, "Ta\0b"s) + compressed_frame('U', 3, zlib_stream("c\0d"s)));
    EXPECT_EQ(next_message(peer.stream, 5), "Ta\0b\0"s);
    EXPECT_EQ(next_message(peer.stream, 5), "Uc\0d\0"s);
}

TEST(GetNextMessage, WaitsForAFrameOf4GigabytesWithoutTouchingTheBuffer) {
    for (const std::uint64_t length :
         {0xFFFFFFFFULL, 0xFFFFFFFBULL, 0xFFFFFFFAULL, 0x80000000ULL}) {
        for (const char encoding : {'\0', '\1', '\2'}) {
            connected_stream peer;
            const std::string bytes = encoding + little_endian(length) + "T0123456789";
            receive(peer.stream, bytes);
            EXPECT_EQ(peer.stream.GetNextMessage(), nullptr);
            EXPECT_EQ(incoming(peer.stream), bytes);
            EXPECT_EQ(peer.stream.GetFirstByte(), 'T');
            EXPECT_TRUE(mutex_is_free(peer.stream));
        }
    }
}

TEST(GetNextMessage, ReturnsNullOnAClosedStreamAndWithoutAMutex) {
    connected_stream peer;
    receive(peer.stream, frame(1, "Ta"));
    peer.stream.closed = 1;
    EXPECT_EQ(peer.stream.GetNextMessage(), nullptr);
    peer.stream.closed = 0;
    pthread_mutex_t* const mutex = std::exchange(peer.stream.mutex, nullptr);
    EXPECT_EQ(peer.stream.GetNextMessage(), nullptr);
    peer.stream.mutex = mutex;
    EXPECT_EQ(next_message(peer.stream, 3), "Ta\0"s);
}

// Receives `corrupt`, and something behind it, and expects the documented consequences.
void expect_drop_with_the_mutex_held(const std::string& corrupt) {
    connected_stream peer;
    receive(peer.stream, corrupt + frame(1, "Ta"));
    EXPECT_EQ(peer.stream.GetNextMessage(), nullptr);
    EXPECT_EQ(incoming(peer.stream), frame(1, "Ta"));
    EXPECT_FALSE(mutex_is_free(peer.stream));
    pthread_mutex_unlock(peer.stream.mutex);
    EXPECT_EQ(next_message(peer.stream, 3), "Ta\0"s);
}

TEST(GetNextMessage, DropsACorruptCompressedFrameAndLeavesTheMutexHeld) {
    std::string stream = zlib_stream(std::string(100, 'z'));
    stream[stream.size() - 1] ^= 1;
    expect_drop_with_the_mutex_held(compressed_frame('Z', 100, stream));
    expect_drop_with_the_mutex_held(compressed_frame('Z', 100, "this is no zlib stream"));
    expect_drop_with_the_mutex_held(compressed_frame('Z', 100, ""));
}

TEST(GetNextMessage, TreatsACompressedPayloadBelow5BytesAsCorrupt) {
    for (std::size_t length = 1; length < 5; ++length) {
        expect_drop_with_the_mutex_held(frame(2, std::string(length, 'Z')));
    }
    // A payload of no bytes is looked at once a sixth byte has come.
    expect_drop_with_the_mutex_held(frame(2, ""));
}

TEST(GetNextMessage, TreatsAStreamLongerThanDeclaredAsCorrupt) {
    expect_drop_with_the_mutex_held(compressed_frame('Z', 99, zlib_stream(std::string(100, 'z'))));
    expect_drop_with_the_mutex_held(compressed_frame('Z', 0, zlib_stream(std::string(100, 'z'))));
}

TEST(GetNextMessage, PutsANulBehindTheTextAndBehindTheDeclaredLength) {
    connected_stream peer;
    receive(peer.stream, compressed_frame('Z', 5000, zlib_stream(std::string(100, 'z'))));
    const std::string message = next_message(peer.stream, 5002);
    EXPECT_EQ(message.substr(0, 102), "Z" + std::string(100, 'z') + '\0');
    EXPECT_EQ(message[5001], 0);
}

TEST(GetNextMessage, TakesADeclaredLengthOf4Gigabytes) {
    connected_stream peer;
    receive(peer.stream, compressed_frame('Z', 0xFFFFFFFF, zlib_stream(std::string(100, 'z'))));
    EXPECT_EQ(next_message(peer.stream, 102), "Z" + std::string(100, 'z') + '\0');
    EXPECT_TRUE(mutex_is_free(peer.stream));
}

TEST(GetNextMessage, NeedsNoMemoryForADeclaredLengthThatTheStreamCannotFill) {
    connected_stream peer;
    receive(peer.stream, compressed_frame('Z', 0xFFFFFFFF, zlib_stream(std::string(100'000, 'z'))));
    const kiv_test::failing_allocation none_left(10'000'000);
    EXPECT_EQ(next_message(peer.stream, 100'002), "Z" + std::string(100'000, 'z') + '\0');
}

TEST(GetNextMessage, TakesAnEmptyTextOfDeclaredLength0) {
    connected_stream peer;
    receive(peer.stream, compressed_frame('Z', 0, zlib_stream("")));
    EXPECT_EQ(next_message(peer.stream, 2), "Z\0"s);
}

TEST(GetNextMessage, LooksAtFourZerosBehindTheStreamAndAtNothingElse) {
    // A body whose checksum ends in a zero byte: cut off, the byte is found again in the padding.
    const std::string body = "9994000000";
    std::string stream = zlib_stream(body);
    ASSERT_EQ(stream.back(), 0);
    stream.pop_back();
    connected_stream peer;
    receive(peer.stream, compressed_frame('Z', 10, stream) + frame(1, "T\xff\xff\xff"));
    EXPECT_EQ(next_message(peer.stream, 12), "Z" + body + '\0');
    EXPECT_EQ(next_message(peer.stream, 5), "T\xff\xff\xff\0"s);

    std::string other = zlib_stream("a body");
    ASSERT_NE(other.back(), 0);
    other.pop_back();
    expect_drop_with_the_mutex_held(compressed_frame('Z', 6, other));
}

TEST(GetNextMessage, IgnoresBytesBehindTheEndOfTheStream) {
    connected_stream peer;
    receive(peer.stream, compressed_frame('Z', 10, zlib_stream("0123456789") + "and more"));
    EXPECT_EQ(next_message(peer.stream, 12), "Z0123456789\0"s);
}

TEST(GetNextMessage, PassesMemoryExhaustionOnAndReleasesTheMutex) {
    connected_stream peer;
    const std::string body(100'000, 'z');
    receive(peer.stream, compressed_frame('Z', body.size(), zlib_stream(body)) + frame(1, "Ta"));
    {
        const kiv_test::failing_allocation none_left(100'000);
        EXPECT_THROW(peer.stream.GetNextMessage(), std::bad_alloc);
    }
    EXPECT_TRUE(mutex_is_free(peer.stream));
    EXPECT_EQ(next_message(peer.stream, 3), "Ta\0"s); // the frame is gone, so nothing is stuck
}

TEST(GetNextMessage, KeepsAPlainFrameWhenMemoryRunsOut) {
    connected_stream peer;
    receive(peer.stream, frame(1, "T" + std::string(100, 'a')));
    {
        const kiv_test::failing_allocation none_left(50);
        EXPECT_THROW(peer.stream.GetNextMessage(), std::bad_alloc);
    }
    EXPECT_TRUE(mutex_is_free(peer.stream));
    EXPECT_EQ(next_message(peer.stream, 102), "T" + std::string(100, 'a') + '\0');
}

TEST(GetFirstByte, GivesTheTypeAsSoonAs6BytesAreHeld) {
    connected_stream peer;
    EXPECT_EQ(peer.stream.GetFirstByte(), 0);
    const std::string long_frame = frame(1, "T" + std::string(10, 'a'));
    receive(peer.stream, long_frame.substr(0, 5));
    EXPECT_EQ(peer.stream.GetFirstByte(), 0);
    receive(peer.stream, long_frame.substr(5, 1));
    EXPECT_EQ(peer.stream.GetFirstByte(), 'T');
    EXPECT_TRUE(mutex_is_free(peer.stream));
}

TEST(GetFirstByte, Is0WithoutAMutex) {
    connected_stream peer;
    receive(peer.stream, frame(1, "Ta"));
    pthread_mutex_t* const mutex = std::exchange(peer.stream.mutex, nullptr);
    EXPECT_EQ(peer.stream.GetFirstByte(), 0);
    peer.stream.mutex = mutex;
}

TEST(ClearBuffers, ForgetsAllBytesAndKeepsTheSizes) {
    connected_stream peer;
    receive(peer.stream, std::string(3000, 'r'));
    fill_outgoing(peer.stream, 3000);
    peer.stream.ClearBuffers();
    EXPECT_EQ(peer.stream.inUsed, 0U);
    EXPECT_EQ(peer.stream.outUsed, 0U);
    EXPECT_EQ(peer.stream.inSize, 6146U);
    EXPECT_EQ(peer.stream.outSize, 3000U);
    EXPECT_EQ(peer.stream.inBuffer[0], 0);
    EXPECT_FALSE(peer.stream.HasToWrite());
    EXPECT_TRUE(mutex_is_free(peer.stream));
    ASSERT_TRUE(peer.stream.AddMessage("T", "x"));
    EXPECT_EQ(outgoing(peer.stream), frame(1, "Tx"));
}

TEST(ClearBuffers, DoesNothingWithoutAMutex) {
    connected_stream peer;
    receive(peer.stream, "abc");
    pthread_mutex_t* const mutex = std::exchange(peer.stream.mutex, nullptr);
    peer.stream.ClearBuffers();
    peer.stream.mutex = mutex;
    EXPECT_EQ(incoming(peer.stream), "abc");
}

TEST(GetBuffersUsage, GivesPercentOfTheLimitsNotOfTheSizes) {
    connected_stream peer;
    receive(peer.stream, std::string(32'000, 'r'));
    fill_outgoing(peer.stream, 1280);
    double in = -1;
    double out = -1;
    peer.stream.GetBuffersUsage(in, out);
    EXPECT_EQ(in, 25.0);
    EXPECT_EQ(out, 1.0);
}

TEST(GetBuffersUsage, GivesFractionsAndMoreThan100Percent) {
    connected_stream peer;
    receive(peer.stream, std::string(3, 'r'));
    fill_outgoing(peer.stream, 500);
    peer.stream.SetMaxIncomingBufferSize(8);
    peer.stream.SetMaxOutgoingBufferSize(200);
    double in = -1;
    double out = -1;
    peer.stream.GetBuffersUsage(in, out);
    EXPECT_EQ(in, 37.5);
    EXPECT_EQ(out, 250.0);
}

TEST(GetBuffersUsage, NeverOverflows) {
    kivSocketStream stream;
    stream.inUsed = 0xFFFFFFFF;
    stream.SetMaxIncomingBufferSize(0xFFFFFFFF);
    double in = -1;
    double out = -1;
    stream.GetBuffersUsage(in, out);
    EXPECT_EQ(in, 100.0);
    stream.inUsed = 0;
}

TEST(GetBuffersUsage, SurvivesLimitsOf0) {
    connected_stream peer;
    receive(peer.stream, "abc");
    peer.stream.SetMaxIncomingBufferSize(0);
    peer.stream.SetMaxOutgoingBufferSize(0);
    double in = -1;
    double out = -1;
    peer.stream.GetBuffersUsage(in, out);
    EXPECT_TRUE(std::isinf(in));
    EXPECT_TRUE(std::isnan(out));
}

TEST(HasToWrite, IsTrueWhileAnOpenStreamHoldsOutput) {
    connected_stream peer;
    EXPECT_FALSE(peer.stream.HasToWrite());
    ASSERT_TRUE(peer.stream.AddMessage("T", "x"));
    EXPECT_TRUE(peer.stream.HasToWrite());
    peer.stream.closed = 1;
    EXPECT_FALSE(peer.stream.HasToWrite());
}

TEST(HasToWrite, TakesNoLock) {
    connected_stream peer;
    ASSERT_TRUE(peer.stream.AddMessage("T", "x"));
    pthread_mutex_lock(peer.stream.mutex);
    double in = -1;
    double out = -1;
    EXPECT_TRUE(peer.stream.HasToWrite());
    peer.stream.GetBuffersUsage(in, out);
    peer.stream.UpdateHeartBeat();
    EXPECT_TRUE(peer.stream.CheckHeartBeat(60));
    peer.stream.SetBufferCheck(true);
    pthread_mutex_unlock(peer.stream.mutex);
}

TEST(CheckHeartBeat, IsTrueUpToTheAllowedSecondsOfSilence) {
    kivSocketStream stream;
    {
        const clock_at now(1'000'000);
        stream.UpdateHeartBeat();
        EXPECT_EQ(stream.lastHeartBeat, 1'000'000);
        EXPECT_TRUE(stream.CheckHeartBeat(0));
        EXPECT_FALSE(stream.CheckHeartBeat(-1));
    }
    const clock_at later(1'000'007);
    EXPECT_FALSE(stream.CheckHeartBeat(5));
    EXPECT_FALSE(stream.CheckHeartBeat(6));
    EXPECT_TRUE(stream.CheckHeartBeat(7));
    EXPECT_TRUE(stream.CheckHeartBeat(8));
}

TEST(CheckHeartBeat, IsTrueAfterTheClockWentBack) {
    kivSocketStream stream;
    {
        const clock_at now(1'000'000);
        stream.UpdateHeartBeat();
    }
    const clock_at earlier(999'000);
    EXPECT_TRUE(stream.CheckHeartBeat(0));
    EXPECT_TRUE(stream.CheckHeartBeat(-1000)); // the comparison is signed
    EXPECT_FALSE(stream.CheckHeartBeat(-1001));
}

TEST(SetMaxIncomingBufferSize, SetsTheLimitAndNothingElse) {
    kivSocketStream stream;
    stream.SetMaxIncomingBufferSize(5);
    EXPECT_EQ(stream.maxInSize, 5U);
    EXPECT_EQ(stream.maxOutSize, 128000U);
    EXPECT_EQ(stream.inSize, 2049U);
}

TEST(SetMaxIncomingBufferSize, SetsTheGreatestLimitForValuesBeyond32Bits) {
    if (sizeof(unsigned long) == 4) {
        GTEST_SKIP() << "an unsigned long has no more than 32 bits here";
    }
    kivSocketStream stream;
    stream.SetMaxIncomingBufferSize(static_cast<unsigned long>(0x100000000));
    EXPECT_EQ(stream.maxInSize, 0xFFFFFFFFU);
}

TEST(SetMaxOutgoingBufferSize, SetsTheLimitAndNothingElse) {
    kivSocketStream stream;
    stream.SetMaxOutgoingBufferSize(5);
    EXPECT_EQ(stream.maxOutSize, 5U);
    EXPECT_EQ(stream.maxInSize, 128000U);
}

TEST(SetMaxOutgoingBufferSize, SetsTheGreatestLimitForValuesBeyond32Bits) {
    if (sizeof(unsigned long) == 4) {
        GTEST_SKIP() << "an unsigned long has no more than 32 bits here";
    }
    kivSocketStream stream;
    stream.SetMaxOutgoingBufferSize(static_cast<unsigned long>(0x100000000));
    EXPECT_EQ(stream.maxOutSize, 0xFFFFFFFFU);
}

TEST(SetBufferCheck, SetsTheFlag) {
    kivSocketStream stream;
    stream.SetBufferCheck(false);
    EXPECT_EQ(stream.bufferCheck, 0);
    stream.SetBufferCheck(true);
    EXPECT_EQ(stream.bufferCheck, 1);
}

TEST(Shutdown, EndsTheConnectionAsOurDeedAndLeavesTheStreamOpen) {
    connected_stream peer;
    receive(peer.stream, frame(1, "Ta"));
    peer.stream.Shutdown();
    EXPECT_EQ(peer.stream.shutdownByUs, 1);
    EXPECT_EQ(peer.stream.closed, 0);
    EXPECT_TRUE(sees_end(peer.connection.far));
    EXPECT_NE(::fcntl(peer.stream.socket, F_GETFD), -1);
    EXPECT_EQ(next_message(peer.stream, 3), "Ta\0"s);
}

TEST(Shutdown, DoesNothingMoreOnAClosedDescriptor) {
    kivSocketStream stream;
    stream.socket = closed_descriptor();
    stream.Shutdown();
    EXPECT_EQ(stream.shutdownByUs, 1);
    EXPECT_EQ(errno, EBADF);
}

TEST(Close, WithdrawsWriteAndThenReadInterestAndClosesTheSocket) {
    connected_stream peer;
    peer.watch_queue();
    errno = 0;
    peer.stream.socket = peer.connection.near.release();
    peer.stream.Close();
    ASSERT_EQ(queue_calls.size(), 2U);
    EXPECT_EQ(queue_calls[0].change_count, 1);
    EXPECT_EQ(queue_calls[0].change.ident, static_cast<std::uintptr_t>(peer.stream.socket));
    EXPECT_EQ(queue_calls[0].change.filter, EVFILT_WRITE);
    EXPECT_EQ(queue_calls[0].change.flags, EV_DELETE);
    EXPECT_EQ(queue_calls[1].change_count, 1);
    EXPECT_EQ(queue_calls[1].change.filter, EVFILT_READ);
    EXPECT_EQ(queue_calls[1].change.flags, EV_DELETE);
    EXPECT_EQ(::fcntl(peer.stream.socket, F_GETFD), -1);
    EXPECT_TRUE(sees_end(peer.connection.far));
    EXPECT_EQ(peer.stream.shutdownByUs, 1);
    EXPECT_EQ(peer.stream.closed, 0);
}

TEST(Close, AsksNothingWithoutAQueue) {
    connected_stream peer;
    queue_calls.clear();
    errno = 0;
    peer.stream.socket = peer.connection.near.release();
    peer.stream.Close();
    EXPECT_TRUE(queue_calls.empty());
    EXPECT_EQ(::fcntl(peer.stream.socket, F_GETFD), -1);
}

TEST(Close, ClosesTheSocketThoughTheQueueIsGone) {
    connected_stream peer;
    peer.watch_queue();
    queue_error = EBADF;
    errno = 0;
    peer.stream.socket = peer.connection.near.release();
    peer.stream.Close();
    EXPECT_EQ(::fcntl(peer.stream.socket, F_GETFD), -1);
    EXPECT_TRUE(log_calls.empty()); // errors of the withdrawal are not even logged
}

TEST(Close, LeavesTheSocketOpenOnAnEbadfThatAnEarlierCallLeft) {
    connected_stream peer;
    errno = EBADF;
    peer.stream.Close();
    EXPECT_NE(::fcntl(peer.stream.socket, F_GETFD), -1);
    EXPECT_EQ(peer.stream.shutdownByUs, 1);
}

TEST(KivSocketStream, LetsOneThreadQueueMessagesWhileAnotherDrivesIt) {
    connected_stream sender;
    kivSocketStream receiver;
    receiver.socket = sender.connection.far.get();
    sender.stream.SetBufferCheck(false);
    constexpr int count = 3000;
    std::atomic<bool> queued_all = false;

    std::thread producer([&sender, &queued_all] {
        for (int i = 0; i < count; ++i) {
            const std::string body = std::to_string(i) + std::string(i % 3 == 0 ? 60 : 0, '.');
            EXPECT_TRUE(sender.stream.AddMessage("n", body.c_str()));
            sender.stream.UpdateHeartBeat();
        }
        queued_all = true;
    });
    int received = 0;
    while (received < count) {
        if (sender.stream.HasToWrite()) {
            sender.stream.Write();
        }
        double in = 0;
        double out = 0;
        sender.stream.GetBuffersUsage(in, out);
        EXPECT_TRUE(sender.stream.CheckHeartBeat(600));
        receiver.Read();
        while (char* const message = receiver.GetNextMessage()) {
            EXPECT_EQ(std::atoi(message + 1), received); // NOLINT(cert-err34-c): digits we made
            ++received;
            destroyEncodedMessage(message);
        }
        ASSERT_EQ(sender.stream.closed, 0);
    }
    producer.join();
    EXPECT_TRUE(queued_all);
    EXPECT_EQ(sender.stream.outUsed, 0U);
}

} // namespace
