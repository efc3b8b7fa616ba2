#include "KivFramework/internal/deflate.h"
#include "KivFramework/internal/frame_codec.h"
#include "KivFramework/internal/sliding_buffer.h"

#include "tests/support/frame_bytes.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <limits>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

using namespace std::string_literals;
using namespace KivFramework::internal;

// A text of which only the length may be looked at.
std::string_view text_of_length(std::size_t length) {
    static constexpr char byte = 'x';
    return {&byte, length};
}

TEST(PlainFrame, RefusesABodyWhoseLengthTheFrameCannotExpress) {
    // A frame whose size fits no size_t of 32 bits cannot be made there.
    const bool has_32_bits = sizeof(std::size_t) == 4;
    const std::size_t longest = has_32_bits ? 0xFFFFFFF9 : 0xFFFFFFFE;
    EXPECT_EQ(plain_frame('T', text_of_length(longest)).payload_length(), longest + 1);
    EXPECT_EQ(plain_frame('T', text_of_length(longest)).size(), longest + 6);
    EXPECT_THROW(plain_frame('T', text_of_length(longest + 1)), std::length_error);
    if (!has_32_bits) {
        const auto beyond_32_bits = static_cast<std::size_t>(0x100000001);
        EXPECT_THROW(plain_frame('T', text_of_length(beyond_32_bits)), std::length_error);
    }
}

TEST(ReadFrameHead, GivesSizesBeyond32Bits) {
    const frame_head head = read_frame_head("\7\xff\xff\xff\xffT");
    EXPECT_EQ(head.encoding, 7);
    EXPECT_EQ(head.payload_length, 0xFFFFFFFFU);
    EXPECT_EQ(head.frame_size(), 0x100000004U);
}

TEST(ReadFrameHead, ReadsTheLengthInLittleEndianOrder) {
    EXPECT_EQ(read_frame_head("\1\x01\x02\x03\xf4").payload_length, 0xF4030201U);
}

TEST(DeflateText, GivesNothingWhenTheStreamDoesNotFitAndRecovers) {
    const std::string text(100, 'a');
    const std::string expected = kiv_test::zlib_stream(text);
    const std::size_t size = expected.size();
    std::string stream(size, '\0');
    for (std::size_t capacity = 0; capacity < size; ++capacity) {
        EXPECT_EQ(deflate_text(text, stream.data(), capacity), 0U);
    }
    EXPECT_EQ(deflate_text(text, stream.data(), size), size);
    EXPECT_EQ(stream, expected);
}

TEST(DeflateText, GivesNothingForATextThatZlibCannotTakeAtOnce) {
    if (sizeof(std::size_t) == 4) {
        GTEST_SKIP() << "zlib can take every text of this system at once";
    }
    char stream[16];
    const auto length = static_cast<std::size_t>(0x100000000);
    EXPECT_EQ(deflate_text(text_of_length(length), stream, sizeof(stream)), 0U);
}

TEST(SlidingBuffer, HoldsTheBytesOfAQueueThatMovesThem) {
    std::mt19937 random(3);
    for (int round = 0; round < 50; ++round) {
        std::size_t room = 1 + random() % 100;
        sliding_buffer buffer(room);
        std::string expected;
        for (int step = 0; step < 500; ++step) {
            const std::size_t arriving = random() % 60;
            if (expected.size() + arriving > room) {
                room = expected.size() + arriving + random() % 20;
                buffer.reserve(expected.size(), room);
            }
            const std::string bytes(arriving, static_cast<char>('a' + step % 26));
            bytes.copy(buffer.front() + expected.size(), arriving);
            expected += bytes;
            const std::size_t leaving = expected.empty() ? 0 : random() % (expected.size() + 1);
            expected.erase(0, leaving);
            buffer.drop(leaving, expected.size(), room);
            ASSERT_EQ(std::string_view(buffer.front(), expected.size()), expected);
            // The whole room is addressable; the address sanitizer knows whether it is.
            std::memset(buffer.front() + expected.size(), '-', room - expected.size());
        }
    }
}

TEST(SlidingBuffer, MovesNoByteOnMostDrops) {
    constexpr std::size_t room = 1000;
    sliding_buffer buffer(room);
    std::size_t moved = 0;
    for (std::size_t dropped = 0; dropped < 100 * room; ++dropped) {
        const char* const before = buffer.front();
        buffer.drop(1, room - 1, room);
        if (buffer.front() != before + 1) {
            moved += room - 1;
        }
    }
    EXPECT_LE(moved, 100 * room); // at most one byte moved for each that left
    EXPECT_GT(moved, 0U);
}

TEST(SlidingBuffer, RefusesARoomForWhichItCannotExpressACapacity) {
    constexpr std::size_t most = std::numeric_limits<std::size_t>::max();
    for (const std::size_t room : {most / 3 + 1, most / 2 + 1, most}) {
        EXPECT_THROW(sliding_buffer{room}, std::bad_alloc);
        sliding_buffer buffer(1);
        EXPECT_THROW(buffer.reserve(1, room), std::bad_alloc);
    }
}

TEST(SlidingBuffer, GrowsInFewAllocationsHoweverSmallTheSteps) {
    std::size_t room = 1;
    sliding_buffer buffer(room);
    int allocations = 0;
    while (room < 1'000'000) {
        const char* const before = buffer.front();
        buffer.reserve(room, room + 7);
        room += 7;
        allocations += buffer.front() == before ? 0 : 1;
    }
    EXPECT_LT(allocations, 50);
}

} // namespace
