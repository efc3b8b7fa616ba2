#include "KivFramework/KivSocket.h"

#include "tests/oracle/socket_stream_model.h"
#include "tests/support/loopback.h"
#include "tests/support/scripted_socket.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <optional>
#include <random>
#include <string>

namespace {

using kiv_test::socket_stream_model;
using KivFramework::KivSocket::destroyEncodedMessage;
using KivFramework::KivSocket::kivSocketStream;

// One stream and its model, to which everything happens alike.
class twin_streams {
public:
    explicit twin_streams(unsigned int seed) : random_(seed) {
        stream_.socket = connection_.near.get();
        stream_.RegisterCounters(&sent_, &received_, nullptr);
        // Not the time of any operation.
        stream_.lastHeartBeat = last_heart_beat_;
    }

    ~twin_streams() {
        if (model_.mutex_stays_locked) {
            pthread_mutex_unlock(stream_.mutex);
        }
        kiv_test::take_sent_bytes();
    }

    twin_streams(const twin_streams&) = delete;
    twin_streams& operator=(const twin_streams&) = delete;

    void choose_limits() {
        model_.max_in_size = static_cast<unsigned int>(upto(40'000));
        model_.max_out_size = static_cast<unsigned int>(upto(10'000));
        model_.buffer_check = one_in(2);
        stream_.SetMaxIncomingBufferSize(model_.max_in_size);
        stream_.SetMaxOutgoingBufferSize(model_.max_out_size);
        stream_.SetBufferCheck(model_.buffer_check);
    }

    // False once the stream refuses everything or its mutex stays locked.
    bool alive() const { return !model_.closed && !model_.mutex_stays_locked; }

    void do_something() {
        switch (upto(9)) {
        case 0:
        case 1:
            add_message();
            break;
        case 2:
        case 3:
            write();
            break;
        case 4:
        case 5:
            read();
            break;
        case 6:
            EXPECT_EQ(stream_.GetFirstByte(), model_.get_first_byte());
            break;
        case 7:
            if (one_in(20)) {
                stream_.ClearBuffers();
                model_.clear_buffers();
                wire_.clear();
            }
            break;
        default:
            take_messages();
        }
    }

    void expect_equal_fields() {
        ASSERT_EQ(stream_.inUsed, model_.in_used);
        ASSERT_EQ(stream_.outUsed, model_.out_used);
        ASSERT_EQ(stream_.inSize, model_.in_buffer.size());
        ASSERT_EQ(stream_.outSize, model_.out_buffer.size());
        ASSERT_EQ(std::memcmp(stream_.inBuffer, model_.in_buffer.data(), model_.in_used), 0);
        ASSERT_EQ(std::memcmp(stream_.outBuffer, model_.out_buffer.data(), model_.out_used), 0);
        ASSERT_EQ(stream_.inBuffer[stream_.inUsed], 0);
        ASSERT_EQ(stream_.closed, model_.closed ? 1 : 0);
        ASSERT_EQ(stream_.shutdownByUs, model_.shutdown_by_us ? 1 : 0);
        ASSERT_EQ(sent_, model_.sent_counter);
        ASSERT_EQ(received_, model_.received_counter);
        ASSERT_EQ(stream_.maxInSize, model_.max_in_size);
        ASSERT_EQ(stream_.maxOutSize, model_.max_out_size);
        ASSERT_EQ(stream_.bufferCheck, model_.buffer_check ? 1 : 0);
        ASSERT_EQ(stream_.sentCounter, &sent_);
        ASSERT_EQ(stream_.receivedCounter, &received_);
        ASSERT_EQ(stream_.countersMutex, nullptr);
        ASSERT_EQ(stream_.mutex, mutex_);
        // No operation registers a queue, moves to another socket or hears of the peer by itself.
        ASSERT_EQ(stream_.kq, -1);
        ASSERT_EQ(stream_.socket, connection_.near.get());
        ASSERT_EQ(stream_.lastHeartBeat, last_heart_beat_);
        ASSERT_EQ(stream_.HasToWrite(), !model_.closed && model_.out_used != 0);
    }

private:
    std::size_t upto(std::size_t limit) { return random_() % (limit + 1); }
    bool one_in(std::size_t odds) { return random_() % odds == 0; }

    std::string random_body() {
        std::string body(upto(one_in(10) ? 6000 : 40), '\0');
        const std::size_t letters = one_in(2) ? 3 : 255;
        for (char& letter : body) {
            letter = static_cast<char>(static_cast<unsigned char>(1 + random_() % letters));
        }
        return body;
    }

    void add_message() {
        const char type[2] = {static_cast<char>('A' + upto(25)), 0};
        const std::string body = random_body();
        EXPECT_EQ(stream_.AddMessage(type, body.c_str()), model_.add_message(type[0], body));
    }

    void write() {
        socket_stream_model::transfer sent;
        sent.result = static_cast<ssize_t>(1 + upto(one_in(2) ? 20 : 20'000));
        if (one_in(8)) {
            sent = {-1, EAGAIN, {}};
        } else if (one_in(300)) {
            const int errors[] = {EPIPE, EINTR, ECONNRESET, ENOBUFS};
            sent = {-static_cast<ssize_t>(upto(1)), errors[upto(3)], {}};
        }
        if (model_.out_used != 0) {
            if (sent.result > 0) {
                kiv_test::script_send(static_cast<std::size_t>(sent.result));
            } else {
                kiv_test::script_send(sent.result, sent.error);
            }
        }
        const std::string pending(model_.out_buffer.data(), model_.out_used);
        const int result = model_.write(sent);
        EXPECT_EQ(stream_.Write(), result);
        EXPECT_EQ(kiv_test::take_sent_bytes(),
                  pending.substr(0, static_cast<std::size_t>(std::max(result, 0))));
    }

    // The next bytes of an endless series of frames, a few of them corrupt, cut anywhere.
    std::string arriving_bytes() {
        const std::size_t count = 1 + upto(one_in(2) ? 12 : 6000);
        while (wire_.size() < count) {
            std::string frame =
                socket_stream_model::encode(static_cast<char>('a' + upto(25)), random_body());
            if (one_in(400)) {
                // Not a length: a huge one would only make the model allocate.
                const std::size_t first_after_lengths = 10;
                const std::size_t where = upto(2 * frame.size());
                char& byte =
                    frame[where < first_after_lengths || where >= frame.size() ? 0 : where];
                byte = static_cast<char>(byte ^ static_cast<char>(1 + upto(6)));
            }
            wire_ += frame;
        }
        std::string bytes = wire_.substr(0, count);
        wire_.erase(0, count);
        return bytes;
    }

    void read() {
        socket_stream_model::transfer received;
        if (one_in(8)) {
            received = {-1, EAGAIN, {}};
        } else if (one_in(60)) {
            const int errors[] = {ECONNRESET, EINTR, ENOTCONN, 0};
            received = {-static_cast<ssize_t>(upto(1)), errors[upto(3)], {}};
        } else {
            received = {1, 0, arriving_bytes()};
        }
        const bool receives = model_.in_buffer.size() - model_.in_used > 4096 ||
                              model_.in_buffer.size() + 4097 <= model_.max_in_size ||
                              !model_.buffer_check;
        if (receives) {
            if (received.result > 0) {
                // What one call cannot take arrives with the next.
                if (received.bytes.size() > 4096) {
                    wire_.insert(0, received.bytes.substr(4096));
                    received.bytes.resize(4096);
                }
                kiv_test::script_recv(received.bytes);
            } else {
                kiv_test::script_recv(received.result, received.error);
            }
        }
        EXPECT_EQ(stream_.Read(), model_.read(received));
    }

    void take_messages() {
        for (std::size_t i = upto(5); i > 0 && alive(); --i) {
            const std::optional<std::string> expected = model_.get_next_message();
            char* const message = stream_.GetNextMessage();
            ASSERT_EQ(message != nullptr, expected.has_value());
            if (expected) {
                EXPECT_EQ(std::memcmp(message, expected->data(), expected->size()), 0);
            }
            destroyEncodedMessage(message);
        }
    }

    std::mt19937 random_;
    kiv_test::local_connection connection_;
    kivSocketStream stream_;
    pthread_mutex_t* const mutex_ = stream_.mutex;
    const std::time_t last_heart_beat_ = 1'173'277'800; // in the past
    socket_stream_model model_;
    long long sent_ = 0;
    long long received_ = 0;
    std::string wire_;
};

TEST(SocketStream, ShowsTheFieldsOfTheLiteralModelAfterEveryOperation) {
    int most_steps = 0;
    for (unsigned int seed = 0; seed < 100; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        twin_streams streams(seed);
        int steps = 0;
        for (; steps < 600 && streams.alive(); ++steps) {
            if (steps % 100 == 50 && seed % 3 == 0) {
                streams.choose_limits();
            }
            streams.do_something();
            streams.expect_equal_fields();
            if (HasFailure()) {
                return;
            }
        }
        most_steps = std::max(most_steps, steps);
    }
    EXPECT_EQ(most_steps, 600) << "the random streams all died young";
}

} // namespace
