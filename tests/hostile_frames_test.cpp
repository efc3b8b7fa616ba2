// Streams whose peers send frames of every kind of untruth, bombs and garbage, or read and write
// as slowly as they can.

#include "KivFramework/KivProcesses.h"
#include "KivFramework/KivSocket.h"

#include "tests/support/loopback.h"
#include "tests/support/transfers.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include <malloc.h>
#include <sys/socket.h>

namespace {

std::atomic<long long> bytes_held{0};
std::atomic<long long> most_bytes_held{0};

} // namespace

void* operator new(std::size_t size) {
    void* const memory = std::malloc(std::max<std::size_t>(size, 1));
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    const long long now = bytes_held += static_cast<long long>(::malloc_usable_size(memory));
    long long most = most_bytes_held;
    while (now > most && !most_bytes_held.compare_exchange_weak(most, now)) {
    }
    return memory;
}

void operator delete(void* memory) noexcept {
    if (memory != nullptr) {
        bytes_held -= static_cast<long long>(::malloc_usable_size(memory));
        std::free(memory);
    }
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    operator delete(memory);
}

namespace {

using namespace KivFramework;

constexpr long long mebibyte = 1LL << 20;

/// How far the memory taken with `new` rose above what it was at the start.
class memory_rise {
public:
    memory_rise() : before_(bytes_held) { most_bytes_held = before_; }
    long long bytes() const { return most_bytes_held - before_; }

private:
    long long before_;
};

std::string length_field(std::uint32_t value) {
    std::string bytes;
    for (unsigned int shift = 0; shift < 32; shift += 8) {
        bytes += static_cast<char>(static_cast<unsigned char>(value >> shift));
    }
    return bytes;
}

std::string deflated(const std::string& text) {
    uLongf size = compressBound(text.size());
    std::string stream(size, '\0');
    EXPECT_EQ(compress(reinterpret_cast<Bytef*>(stream.data()), &size,
                       reinterpret_cast<const Bytef*>(text.data()), text.size()),
              Z_OK);
    stream.resize(size);
    return stream;
}

std::string plain_frame(char type, const std::string& body) {
    return '\1' + length_field(static_cast<std::uint32_t>(body.size() + 1)) + type + body;
}

std::string empty_frame(char type) {
    return '\0' + length_field(1) + type;
}

std::string deflated_frame(char type, const std::string& stream, std::uint32_t declared) {
    return '\2' + length_field(static_cast<std::uint32_t>(stream.size() + 5)) + type +
           length_field(declared) + stream;
}

// A stream and the peer it has to bear.
struct endured_peer {
    endured_peer() { stream.socket = connection.near.get(); }

    /// Sends all of the bytes, which the stream reads as they come, and ends as soon as the stream
    /// has closed itself.
    void deliver(const std::string& bytes) {
        for (std::size_t used = 0; used < bytes.size() && stream.closed == 0;) {
            const ssize_t sent = ::send(connection.far.get(), bytes.data() + used,
                                        bytes.size() - used, MSG_NOSIGNAL);
            used += sent > 0 ? static_cast<std::size_t>(sent) : 0;
            while (stream.Read() > 0) {
            }
        }
    }

    /// The next message, type and body, when there is one. A frame that does not inflate leaves the
    /// stream's mutex held by the caller, who gives it back here.
    bool next(std::string& message) {
        char* const text = stream.GetNextMessage();
        if (text == nullptr) {
            if (KivProcesses::TryLockMutex(stream.mutex)) {
                KivProcesses::UnlockMutex(stream.mutex);
            } else {
                KivProcesses::UnlockMutex(stream.mutex);
                damaged = true;
            }
            return false;
        }
        message = text;
        KivSocket::destroyEncodedMessage(text);
        return true;
    }

    kiv_test::local_connection connection;
    kivSocketStream stream;
    bool damaged = false;
};

// One cell of the table: what a frame says of itself, how much of it comes, and what is in it.
struct hostile_frame {
    std::uint32_t payload_length;
    int encoding;
    std::size_t delivered;
    std::uint32_t declared;
};

const std::string honest_body(1000, 'b');

// The bytes of the frame as far as they are delivered, and some of a next one where it is complete.
std::string bytes_of(const hostile_frame& frame) {
    std::string bytes = static_cast<char>(frame.encoding) + length_field(frame.payload_length);
    bytes += 'T' + length_field(frame.declared) + deflated(honest_body);
    bytes.resize(std::max(bytes.size(), frame.delivered), '\0');
    bytes.resize(frame.delivered);
    return bytes;
}

enum class fate { waits, message, damaged };

// What the rules of the format make of it.
fate fate_of(const hostile_frame& frame) {
    const std::uint64_t size = std::uint64_t{frame.payload_length} + 5;
    if (frame.delivered < 6 || frame.delivered < size) {
        return fate::waits;
    }
    if (frame.encoding != 2) {
        return fate::message;
    }
    const bool has_stream = frame.payload_length >= 5 + deflated(honest_body).size();
    return has_stream && frame.declared >= honest_body.size() ? fate::message : fate::damaged;
}

std::vector<hostile_frame> all_cells() {
    std::vector<hostile_frame> cells;
    for (const std::uint32_t length : {0U, 1U, 2U, 4U, 5U, 6U, 16U, 100U, 5000U, 100'000U,
                                       0x7FFFFFFFU, 0xFFFFFFFBU, 0xFFFFFFFFU}) {
        const std::size_t whole =
            static_cast<std::size_t>(std::min<std::uint64_t>(std::uint64_t{length} + 5, 110'000));
        for (const int encoding : {0, 1, 2, 3, 255}) {
            for (const std::size_t delivered : {std::size_t{5}, std::size_t{6}, whole - 1, whole}) {
                for (const std::uint32_t declared : {0U, 1000U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
                    cells.push_back({length, encoding, delivered, declared});
                    if (encoding != 2) {
                        break; // it declares nothing
                    }
                }
            }
        }
    }
    return cells;
}

TEST(GetNextMessage, BearsEveryFrameThatLiesWithinTheMemoryThatItDeclares) {
    const std::vector<hostile_frame> cells = all_cells();
    ASSERT_GE(cells.size(), 240U);
    for (const hostile_frame& cell : cells) {
        SCOPED_TRACE("L " + std::to_string(cell.payload_length) + ", encoding " +
                     std::to_string(cell.encoding) + ", delivered " +
                     std::to_string(cell.delivered) + ", m " + std::to_string(cell.declared));
        endured_peer peer;
        const std::string bytes = bytes_of(cell);
        const memory_rise rise;
        peer.deliver(bytes);
        std::string message;
        const bool came = peer.next(message);
        const fate expected = fate_of(cell);
        EXPECT_EQ(came, expected == fate::message);
        EXPECT_EQ(peer.damaged, expected == fate::damaged);
        const long long frame_size = static_cast<long long>(
            std::min<std::uint64_t>(std::uint64_t{cell.payload_length} + 5, cell.delivered));
        // A frame that waits has only what came of it; the declared size counts once it is whole.
        const long long declared =
            expected == fate::waits || cell.encoding != 2 ? 0 : cell.declared;
        EXPECT_LE(rise.bytes(), frame_size + declared + mebibyte);
        if (expected == fate::message && cell.encoding == 2) {
            EXPECT_EQ(message, "T" + honest_body);
        }
        EXPECT_EQ(peer.stream.closed, 0);
    }
}

TEST(GetNextMessage, InflatesABombNoFurtherThanItDeclares) {
    const std::string bomb = deflated(std::string(60 * mebibyte, '\1'));
    ASSERT_LT(bomb.size(), 100'000U);
    for (const std::uint32_t declared : {0U, 1U, 1000U, 1'000'000U}) {
        endured_peer peer;
        peer.deliver(deflated_frame('B', bomb, declared));
        const memory_rise rise;
        std::string message;
        EXPECT_FALSE(peer.next(message));
        EXPECT_TRUE(peer.damaged);
        EXPECT_LE(rise.bytes(), static_cast<long long>(bomb.size() + declared) + mebibyte);
    }
}

TEST(GetNextMessage, GoesOnBehindABombWhoseMutexTheHostGaveBack) {
    endured_peer peer;
    peer.deliver(deflated_frame('B', deflated(std::string(mebibyte, '\1')), 10));
    peer.deliver(plain_frame('N', "next"));
    std::string message;
    EXPECT_FALSE(peer.next(message));
    EXPECT_TRUE(peer.next(message));
    EXPECT_EQ(message, "Nnext");
}

TEST(Read, ClosesTheStreamOfAPeerThatSendsMoreThanTheLimitWithinAMebibyte) {
    const std::string bytes = '\1' + length_field(0xFFFFFFFF) + std::string(4 * mebibyte, 'x');
    endured_peer peer;
    const memory_rise rise;
    peer.deliver(bytes);
    EXPECT_EQ(peer.stream.closed, 1);
    EXPECT_EQ(peer.stream.shutdownByUs, 1);
    EXPECT_LE(rise.bytes(), 128'000 + mebibyte);
}

TEST(GetNextMessage, BearsGarbage) {
    std::mt19937 generator(7);
    for (int round = 0; round < 300; ++round) {
        std::string garbage(generator() % 20'000, '\0');
        for (char& byte : garbage) {
            byte = static_cast<char>(generator() % 256);
        }
        // Short lengths, so that there are frames among it.
        for (std::size_t i = 2; i < garbage.size(); i += 7) {
            garbage[i] = 0;
        }
        endured_peer peer;
        peer.deliver(garbage);
        std::string message;
        while (peer.next(message)) {
        }
        EXPECT_LE(peer.stream.inUsed, garbage.size());
    }
}

// The messages of a stream's bytes that come in pieces.
std::vector<std::string> messages_of(const std::vector<std::string>& pieces) {
    endured_peer peer;
    std::vector<std::string> messages;
    for (const std::string& piece : pieces) {
        peer.deliver(piece);
        for (std::string message; peer.next(message);) {
            messages.push_back(message);
        }
    }
    EXPECT_EQ(peer.stream.inUsed, 0U);
    return messages;
}

TEST(GetNextMessage, GivesTheSameMessagesAtEverySplitPointOfThreeFrames) {
    const std::string body(40, 'z');
    const std::string bytes =
        plain_frame('P', "plain body") + empty_frame('E') + deflated_frame('Z', deflated(body), 40);
    const std::vector<std::string> expected = {"Pplain body", "E", "Z" + body};
    for (std::size_t first = 0; first <= bytes.size(); ++first) {
        for (std::size_t second = first; second <= bytes.size(); ++second) {
            EXPECT_EQ(messages_of({bytes.substr(0, first), bytes.substr(first, second - first),
                                   bytes.substr(second)}),
                      expected)
                << first << ", " << second;
        }
    }
}

TEST(GetNextMessage, GivesTheSameMessagesByteByByte) {
    const std::string body(5000, 'y');
    const std::string bytes =
        plain_frame('P', body) + empty_frame('E') + deflated_frame('Z', deflated(body), 5000);
    std::vector<std::string> pieces;
    for (const char byte : bytes) {
        pieces.emplace_back(1, byte);
    }
    EXPECT_EQ(messages_of(pieces), (std::vector<std::string>{"P" + body, "E", "Z" + body}));
}

TEST(AddMessage, ClosesTheStreamOfAPeerThatReadsNothingWithinAMebibyte) {
    endured_peer peer;
    const std::string body(8, 'a');
    const memory_rise rise;
    int queued = 0;
    while (peer.stream.AddMessage("M", body.c_str())) {
        peer.stream.Write();
        ++queued;
    }
    EXPECT_GT(queued, 5000);
    EXPECT_EQ(peer.stream.closed, 1);
    EXPECT_EQ(peer.stream.shutdownByUs, 1);
    EXPECT_LE(rise.bytes(), 128'000 + mebibyte);
}

TEST(Write, ServesAPeerThatReadsByteByByteToTheEnd) {
    endured_peer peer;
    std::string expected;
    for (int i = 0; i < 2000; ++i) {
        const std::string body = std::to_string(i);
        ASSERT_TRUE(peer.stream.AddMessage("M", body.c_str()));
        expected += plain_frame('M', body);
    }
    std::string received;
    while (received.size() < expected.size()) {
        peer.stream.Write();
        char byte = '\0';
        if (::recv(peer.connection.far.get(), &byte, 1, MSG_DONTWAIT) == 1) {
            received += byte;
        }
    }
    EXPECT_EQ(received, expected);
    EXPECT_FALSE(peer.stream.HasToWrite());
}

} // namespace
