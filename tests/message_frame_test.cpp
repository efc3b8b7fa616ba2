#include "KivFramework/KivSocket.h"

#include "tests/support/frame_bytes.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>

namespace {

using namespace std::string_literals;
using namespace KivFramework::KivSocket;
using kiv_test::little_endian;
using kiv_test::zlib_stream;

struct encoded_message {
    std::string bytes;
    unsigned long payload_length = 0;
    unsigned long frame_length = 0;
};

encoded_message encode(const char* type, const char* body) {
    char* frame = nullptr;
    encoded_message result;
    encodeMessage(type, body, &frame, &result.payload_length, &result.frame_length);
    result.bytes.assign(frame, result.frame_length);
    destroyEncodedMessage(frame);
    return result;
}

std::string encode_body(const std::string& body) {
    return encode("T", body.c_str()).bytes;
}

std::string plain_frame(const std::string& body) {
    return "\1"s + little_endian(body.size() + 1) + "T" + body;
}

std::string compressed_frame(const std::string& body) {
    const std::string stream = zlib_stream(body);
    return "\2"s + little_endian(stream.size() + 5) + "T" + little_endian(body.size()) + stream;
}

// `distinct` different letters and then equal ones: the more equal, the shorter when compressed.
std::string letters(std::size_t distinct, std::size_t size) {
    std::string body;
    for (std::size_t i = 0; i < size; ++i) {
        body += static_cast<char>(i < distinct ? 'a' + i : 'z');
    }
    return body;
}

TEST(EncodeMessage, SendsNoBodyForNullAndEmptyBodies) {
    for (const char* body : {static_cast<const char*>(nullptr), ""}) {
        const encoded_message message = encode("P", body);
        EXPECT_EQ(message.bytes, "\0\1\0\0\0P"s);
        EXPECT_EQ(message.payload_length, 1U);
        EXPECT_EQ(message.frame_length, 6U);
    }
}

TEST(EncodeMessage, SendsOnlyTheFirstByteOfTheType) {
    const encoded_message message = encode("Hello", "abc");
    EXPECT_EQ(message.bytes, "\1\4\0\0\0Habc"s);
    EXPECT_EQ(message.payload_length, 4U);
    EXPECT_EQ(message.frame_length, 9U);
}

TEST(EncodeMessage, SendsType0ForAnEmptyType) {
    EXPECT_EQ(encode("", nullptr).bytes, "\0\1\0\0\0\0"s);
    EXPECT_EQ(encode("", "x").bytes, "\1\2\0\0\0\0x"s);
}

TEST(EncodeMessage, TakesTypesAndBodiesOfAnyByte) {
    EXPECT_EQ(encode("\xff", "\x80\xfe\x01").bytes, "\1\4\0\0\0\xff\x80\xfe\x01"s);
}

TEST(EncodeMessage, TakesNullForTheFrameLength) {
    char* frame = nullptr;
    unsigned long payload_length = 0;
    encodeMessage("P", "xyz", &frame, &payload_length, nullptr);
    EXPECT_EQ(payload_length, 4U);
    EXPECT_EQ(std::string(frame, 9), "\1\4\0\0\0Pxyz"s);
    destroyEncodedMessage(frame);
}

TEST(EncodeMessage, NeverCompressesTenBytes) {
    EXPECT_EQ(encode_body(std::string(10, 'a')), plain_frame(std::string(10, 'a')));
}

TEST(EncodeMessage, CompressesElevenEqualLettersIntoALongerFrame) {
    // 11 bytes of zlib stream are less than 11 + 4, and with the length field the frame is longer
    // than the plain one.
    const encoded_message message = encode("T", "aaaaaaaaaaa");
    EXPECT_EQ(message.bytes, compressed_frame("aaaaaaaaaaa"));
    EXPECT_EQ(message.bytes.substr(0, 10), "\2\x10\0\0\0T\x0b\0\0\0"s);
    EXPECT_EQ(message.payload_length, 16U);
    EXPECT_EQ(message.frame_length, plain_frame("aaaaaaaaaaa").size() + 4);
}

TEST(EncodeMessage, SendsElevenDifferentLettersPlain) {
    const encoded_message message = encode("T", "abcdefghijk");
    EXPECT_EQ(message.bytes, "\1\x0c\0\0\0Tabcdefghijk"s);
    EXPECT_EQ(message.payload_length, 12U);
}

TEST(EncodeMessage, CompressesExactlyWhenTheStreamIsLessThanFourBytesLongerThanTheBody) {
    bool seen_at_the_boundary[2] = {false, false};
    for (std::size_t size = 11; size < 60; ++size) {
        for (std::size_t distinct = 0; distinct <= size; ++distinct) {
            const std::string body = letters(distinct, size);
            const std::size_t compressed = zlib_stream(body).size();
            SCOPED_TRACE(body);
            ASSERT_EQ(encode_body(body),
                      compressed < size + 4 ? compressed_frame(body) : plain_frame(body));
            if (compressed == size + 3 || compressed == size + 4) {
                seen_at_the_boundary[compressed - size - 3] = true;
            }
        }
    }
    EXPECT_TRUE(seen_at_the_boundary[0]);
    EXPECT_TRUE(seen_at_the_boundary[1]);
}

TEST(EncodeMessage, SendsACompressedFrameUpToSevenBytesLongerThanThePlainOne) {
    std::size_t most = 0;
    for (std::size_t size = 11; size < 60; ++size) {
        for (std::size_t distinct = 0; distinct <= size; ++distinct) {
            const std::string body = letters(distinct, size);
            const std::string frame = encode_body(body);
            if (frame[0] == 2) {
                most = std::max(most, frame.size() - std::min(frame.size(), body.size() + 6));
            }
        }
    }
    EXPECT_EQ(most, 7U);
}

TEST(EncodeMessage, PutsTheUncompressedLengthInLittleEndianOrderAtOffset6) {
    const std::string frame = encode_body(std::string(1000, 'x'));
    EXPECT_EQ(frame[0], 2);
    EXPECT_EQ(frame.substr(6, 4), "\xe8\x03\0\0"s);
    EXPECT_EQ(encode_body(std::string(0x010203, 'x')).substr(6, 4), "\x03\x02\x01\0"s);
}

TEST(EncodeMessage, PutsThePayloadLengthInLittleEndianOrderAtOffset1) {
    std::mt19937 random(1); // incompressible, so the length is known
    std::string body(0x010203 - 1, '\0');
    for (char& byte : body) {
        byte = static_cast<char>(1 + random() % 255);
    }
    EXPECT_EQ(encode_body(body).substr(0, 5), "\1\x03\x02\x01\0"s);
}

TEST(EncodeMessage, MakesTheBytesOfCompressWhateverTheThreadCompressedBefore) {
    std::mt19937 random(7);
    const std::string words[] = {"status", " = ", "ok", "failed", "\n", "0123456789", "x"};
    for (int round = 0; round < 300; ++round) {
        std::string body;
        const std::size_t size = 11 + random() % (round % 10 == 0 ? 200'000 : 3'000);
        const bool text = random() % 4 != 0;
        while (body.size() < size) {
            if (text) {
                body += words[random() % std::size(words)];
            } else {
                body += static_cast<char>(1 + random() % 255);
            }
        }
        const std::size_t compressed = zlib_stream(body).size();
        ASSERT_EQ(encode_body(body),
                  compressed < body.size() + 4 ? compressed_frame(body) : plain_frame(body))
            << "round " << round;
    }
}

TEST(EncodeMessage, RunsInManyThreadsAtOnce) {
    constexpr int thread_count = 4;
    std::vector<std::thread> threads;
    threads.reserve(thread_count);
    for (int i = 0; i < thread_count; ++i) {
        threads.emplace_back([i] {
            for (std::size_t size = 100; size < 300; ++size) {
                const std::string body(size, static_cast<char>('a' + i));
                EXPECT_EQ(encode_body(body), compressed_frame(body));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(EncodeMessage, StillCompressesInTheLastDestructorsOfAThread) {
    // The system runs the destructors of keys after those of thread-local variables, so the
    // thread's compressor is gone by then. The address sanitizer would find one made anew.
    static pthread_key_t key;
    static std::string frame;
    ASSERT_EQ(
        pthread_key_create(
            &key, [](void* body) { frame = encode_body(*static_cast<const std::string*>(body)); }),
        0);
    std::string body(100, 'q');
    std::thread([&body] {
        encode_body(body);
        EXPECT_EQ(pthread_setspecific(key, &body), 0);
    }).join();
    pthread_key_delete(key);
    EXPECT_EQ(frame, compressed_frame(body));
}

// A function of its own: nothing with a destructor is on the stack where its thread ends.
[[gnu::noinline]] void encode_something() {
    encode_body(std::string(100, 'q'));
}

TEST(EncodeMessage, SurvivesCancellationOfItsThread) {
    pthread_t thread{};
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void*) -> void* {
                      while (true) {
                          encode_something();
                          pthread_testcancel();
                      }
                  },
                  nullptr),
              0);
    ASSERT_EQ(pthread_cancel(thread), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

TEST(DestroyEncodedMessage, IgnoresNull) {
    destroyEncodedMessage(nullptr);
}

TEST(KivResizeBuffer, KeepsTheUsedBytesAndZeroFillsTheRest) {
    unsigned long size = 4;
    char* buffer = new char[4]{'a', 'b', 'c', 'd'};
    buffer = kiv_resize_buffer(buffer, &size, 3, 8);
    EXPECT_EQ(size, 8U);
    EXPECT_EQ(std::string(buffer, 8), "abc\0\0\0\0\0"s);
    delete[] buffer;
}

TEST(KivResizeBuffer, TakesNullForTheOldBuffer) {
    unsigned long size = 0;
    char* buffer = kiv_resize_buffer(nullptr, &size, 0, 3);
    EXPECT_EQ(size, 3U);
    EXPECT_EQ(std::string(buffer, 3), "\0\0\0"s);
    delete[] buffer;
}

TEST(KivResizeBuffer, NeverWritesBeyondTheNewSize) {
    unsigned long size = 4;
    char* buffer = new char[4]{'a', 'b', 'c', 'd'};
    buffer = kiv_resize_buffer(buffer, &size, 4, 2);
    EXPECT_EQ(size, 2U);
    EXPECT_EQ(std::string(buffer, 2), "ab");
    delete[] buffer;
}

} // namespace
