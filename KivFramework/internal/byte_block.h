#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace KivFramework::internal {

/// Bytes that are looked at in one step; the compiler has vector instructions for their operators.
/// No function returns a block or its places: on 32-bit x86 the way to return a vector depends on
/// the instructions that the compiler may use, and it warns wherever one is returned.
using byte_block = unsigned char __attribute__((vector_size(16)));

/// The outcome of comparing blocks: a byte has all its bits set where the comparison holds.
using block_places = decltype(byte_block() == byte_block());

inline void load_block(const char* bytes, byte_block& block) {
    std::memcpy(&block, bytes, sizeof(block));
}

inline void store_block(const byte_block& block, char* bytes) {
    std::memcpy(bytes, &block, sizeof(block));
}

/// A bit for every place where a comparison holds, the lowest one for the first place.
inline unsigned int place_bits(const block_places& places) {
#if defined(__SSE2__) && !defined(KIV_PORTABLE_BLOCKS)
    return static_cast<unsigned int>(_mm_movemask_epi8(std::bit_cast<__m128i>(places)));
#else
    const auto bytes = std::bit_cast<std::array<signed char, sizeof(places)>>(places);
    unsigned int bits = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bits |= (bytes[i] != 0 ? 1U : 0U) << i;
    }
    return bits;
#endif
}

inline bool anywhere(const block_places& places) {
    return place_bits(places) != 0;
}

/// Adds up what `add` counts for every byte of the whole blocks that a text begins with.
///
/// \tparam most  the most that it counts for a byte.
/// \param add    takes a block, and the block of sums to which it adds.
template <unsigned char most, typename function>
std::size_t sum_over_blocks(std::string_view text, function add) {
    constexpr std::size_t blocks_without_carry = UCHAR_MAX / most;
    const char* bytes = text.data();
    std::size_t total = 0;
    for (std::size_t left = text.size() / sizeof(byte_block); left > 0;) {
        const std::size_t blocks = std::min(left, blocks_without_carry);
        byte_block sums{};
        for (std::size_t i = 0; i < blocks; ++i) {
            byte_block block;
            load_block(bytes, block);
            add(block, sums);
            bytes += sizeof(block);
        }
        for (std::size_t i = 0; i < sizeof(sums); ++i) {
            total += sums[i];
        }
        left -= blocks;
    }
    return total;
}

/// How often a byte stands in a text.
inline std::size_t count_byte(std::string_view text, char counted) {
    const std::size_t in_blocks =
        sum_over_blocks<1>(text, [counted](const byte_block& block, byte_block& sums) {
            sums += byte_block(block == counted) & 1;
        });
    text.remove_prefix(text.size() - text.size() % sizeof(byte_block));
    return in_blocks + static_cast<std::size_t>(std::count(text.begin(), text.end(), counted));
}

/// Calls `take` with the offset of every place where a byte stands in a text, in their order.
template <typename function>
void for_each_place(std::string_view text, char searched, function take) {
    std::size_t offset = 0;
    for (; text.size() - offset >= sizeof(byte_block); offset += sizeof(byte_block)) {
        byte_block block;
        load_block(text.data() + offset, block);
        for (unsigned int bits = place_bits(block == searched); bits != 0; bits &= bits - 1) {
            take(offset + static_cast<std::size_t>(std::countr_zero(bits)));
        }
    }
    for (; offset < text.size(); ++offset) {
        if (text[offset] == searched) {
            take(offset);
        }
    }
}

} // namespace KivFramework::internal
