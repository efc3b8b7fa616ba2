// The form for processors without the instruction that the library is built with here.
#define KIV_PORTABLE_BLOCKS
#include "KivFramework/internal/byte_block.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>

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

} // namespace
