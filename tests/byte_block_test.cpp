// The form for processors without the instruction that the library is built with here.
#define KIV_PORTABLE_BLOCKS
#include "KivFramework/internal/byte_block.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

namespace {

using namespace KivFramework::internal;

TEST(PlaceBits, HasABitForEveryPlaceTheLowestForTheFirst) {
    for (unsigned int bits = 0; bits < 1U << sizeof(byte_block); ++bits) {
        std::string text(sizeof(byte_block), '.');
        for (std::size_t i = 0; i < text.size(); ++i) {
            if ((bits >> i & 1U) != 0) {
                text[i] = 'x';
            }
        }
        byte_block block;
        load_block(text.data(), block);
        const block_places places = block == 'x';
        ASSERT_EQ(place_bits(places), bits);
        ASSERT_EQ(anywhere(places), bits != 0);
    }
}

TEST(SumOverBlocks, CarriesNothingFromByteToByteInALongText) {
    constexpr unsigned char most = 7;
    for (std::size_t blocks = 0; blocks < 200; ++blocks) {
        const std::string text(blocks * sizeof(byte_block), 'x');
        ASSERT_EQ((sum_over_blocks<most>(text,
                                         [](const byte_block& block, byte_block& sums) {
                                             sums += byte_block(block == 'x') & most;
                                         })),
                  text.size() * most);
    }
}

TEST(SumOverBlocks, LeavesOutWhatFillsNoBlock) {
    const std::string text(sizeof(byte_block) + 1, 'x');
    EXPECT_EQ(
        (sum_over_blocks<1>(text, [](const byte_block& block,
                                     byte_block& sums) { sums += byte_block(block == 'x') & 1; })),
        sizeof(byte_block));
}

// Texts of every length up to three blocks, each with the byte in the places of a pattern.
std::vector<std::string> texts_with(char byte) {
    std::vector<std::string> texts;
    for (std::size_t size = 0; size <= 3 * sizeof(byte_block); ++size) {
        for (const unsigned int step : {1U, 2U, 3U, 7U, 16U, 17U}) {
            std::string text(size, '.');
            for (std::size_t i = 0; i < size; i += step) {
                text[size - 1 - i] = byte;
            }
            texts.push_back(text);
        }
    }
    return texts;
}

TEST(CountByte, CountsInBlocksAndInTheRest) {
    for (const char byte : {'x', '\0', '\x80', '\xFF'}) {
        for (const std::string& text : texts_with(byte)) {
            std::size_t expected = 0;
            for (const char at : text) {
                expected += at == byte ? 1U : 0U;
            }
            ASSERT_EQ(count_byte(text, byte), expected) << text;
        }
    }
}

TEST(ForEachPlace, FindsEveryPlaceInItsOrder) {
    for (const char byte : {'x', '\0', '\x80', '\xFF'}) {
        for (const std::string& text : texts_with(byte)) {
            std::vector<std::size_t> expected;
            for (std::size_t at = text.find(byte); at != std::string::npos;
                 at = text.find(byte, at + 1)) {
                expected.push_back(at);
            }
            std::vector<std::size_t> found;
            for_each_place(text, byte, [&found](std::size_t at) { found.push_back(at); });
            ASSERT_EQ(found, expected) << text;
        }
    }
}

} // namespace
