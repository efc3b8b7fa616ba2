// Feeds bytes to a message stream, as a hostile peer would, and compares every message that comes
// out with the literal model. Then sends what is left of the input as a message.
//
// An input is a byte that chooses how many bytes arrive at a time, and what arrives.

#include "KivFramework/KivSocket.h"

#include "tests/oracle/socket_stream_model.h"
#include "tests/support/failing_allocation.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include <sys/socket.h>
#include <unistd.h>

namespace {

using kiv_test::socket_stream_model;
using KivFramework::KivSocket::destroyEncodedMessage;
using KivFramework::KivSocket::kivSocketStream;

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

// A stream, its model, and the end from which both are fed.
struct fed_stream {
    fed_stream() {
        int ends[2] = {-1, -1};
        require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) == 0);
        stream.socket = ends[0];
        far = ends[1];
    }

    ~fed_stream() {
        if (model.mutex_stays_locked) {
            pthread_mutex_unlock(stream.mutex);
        }
        ::close(stream.socket);
        ::close(far);
    }

    fed_stream(const fed_stream&) = delete;
    fed_stream& operator=(const fed_stream&) = delete;

    void feed(const std::string& bytes) {
        require(::send(far, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()));
        require(stream.Read() == model.read({static_cast<ssize_t>(bytes.size()), 0, bytes}));
    }

    // False when no further message can be had, now or ever.
    bool take_message() {
        char* const message = stream.GetNextMessage();
        std::optional<std::string> expected;
        try {
            expected = model.get_next_message();
        } catch (const std::bad_alloc&) {
            // The model takes a declared length at its word; the stream need not.
            model.mutex_stays_locked = message == nullptr;
            destroyEncodedMessage(message);
            return message != nullptr;
        }
        require((message != nullptr) == expected.has_value());
        if (expected) {
            const std::string_view bytes = *expected;
            require(std::memcmp(message, bytes.data(), bytes.size()) == 0);
        }
        destroyEncodedMessage(message);
        require(stream.inUsed == model.in_used && stream.inBuffer[stream.inUsed] == 0);
        require(std::memcmp(stream.inBuffer, model.in_buffer.data(), model.in_used) == 0);
        return expected.has_value();
    }

    kivSocketStream stream;
    socket_stream_model model;
    int far = -1;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Declared lengths reach 4 GiB; the fuzzer's own limit on memory must not be what they meet.
    const kiv_test::failing_allocation large_ones(std::size_t{64} << 20);
    if (size == 0) {
        return 0;
    }
    const std::size_t chunk = 1 + std::size_t{data[0]} * 16;
    std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);

    fed_stream fed;
    for (std::size_t i = 0; i < bytes.size() && !fed.model.closed; i += chunk) {
        fed.feed(bytes.substr(i, chunk));
        require(fed.stream.GetFirstByte() == fed.model.get_first_byte());
        while (fed.take_message()) {
        }
        if (fed.model.mutex_stays_locked) {
            return 0;
        }
    }

    const char* const body = bytes.c_str();
    require(fed.stream.AddMessage("t", body) == fed.model.add_message('t', body));
    require(std::memcmp(fed.stream.outBuffer, fed.model.out_buffer.data(), fed.model.out_used) ==
            0);
    return 0;
}
