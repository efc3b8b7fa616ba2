#include "KivFramework/KivMd5.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

using namespace KivFramework;
using KivMd5::md5_state_s;

namespace {

constexpr std::size_t block_size = 64;

// The integer parts of 2^32 * |sin(i + 1)|.
constexpr std::array<std::uint32_t, 64> sines = {
    0xD76AA478U, 0xE8C7B756U, 0x242070DBU, 0xC1BDCEEEU, 0xF57C0FAFU, 0x4787C62AU, 0xA8304613U,
    0xFD469501U, 0x698098D8U, 0x8B44F7AFU, 0xFFFF5BB1U, 0x895CD7BEU, 0x6B901122U, 0xFD987193U,
    0xA679438EU, 0x49B40821U, 0xF61E2562U, 0xC040B340U, 0x265E5A51U, 0xE9B6C7AAU, 0xD62F105DU,
    0x02441453U, 0xD8A1E681U, 0xE7D3FBC8U, 0x21E1CDE6U, 0xC33707D6U, 0xF4D50D87U, 0x455A14EDU,
    0xA9E3E905U, 0xFCEFA3F8U, 0x676F02D9U, 0x8D2A4C8AU, 0xFFFA3942U, 0x8771F681U, 0x6D9D6122U,
    0xFDE5380CU, 0xA4BEEA44U, 0x4BDECFA9U, 0xF6BB4B60U, 0xBEBFBC70U, 0x289B7EC6U, 0xEAA127FAU,
    0xD4EF3085U, 0x04881D05U, 0xD9D4D039U, 0xE6DB99E5U, 0x1FA27CF8U, 0xC4AC5665U, 0xF4292244U,
    0x432AFF97U, 0xAB9423A7U, 0xFC93A039U, 0x655B59C3U, 0x8F0CCC92U, 0xFFEFF47DU, 0x85845DD1U,
    0x6FA87E4FU, 0xFE2CE6E0U, 0xA3014314U, 0x4E0811A1U, 0xF7537E82U, 0xBD3AF235U, 0x2AD7D2BBU,
    0xEB86D391U,
};

constexpr std::array<std::array<int, 4>, 4> rotations = {
    {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}}};

// The word of the block that a step takes.
constexpr std::size_t word_of_step(std::size_t step) {
    constexpr std::array<std::size_t, 4> stride = {1, 5, 3, 7};
    constexpr std::array<std::size_t, 4> start = {0, 1, 5, 0};
    return (stride[step / 16] * step + start[step / 16]) % 16;
}

// Little-endian on every host; on most of them one load.
std::uint32_t load_word(const unsigned char* bytes) {
    return bytes[0] | std::uint32_t{bytes[1]} << 8U | std::uint32_t{bytes[2]} << 16U |
           std::uint32_t{bytes[3]} << 24U;
}

void store_word(std::uint32_t word, unsigned char* bytes) {
    for (unsigned int i = 0; i < 4; ++i) {
        bytes[i] = static_cast<unsigned char>(word >> 8U * i);
    }
}

using chain_words = std::array<std::uint32_t, 4>;

// Keeps a compiler from adding up in another order; on its own, clang makes each step a quarter
// slower.
[[gnu::always_inline]] inline void complete(std::uint32_t& sum) {
    asm("" : "+r"(sum));
}

// Every step needs the result of the one before, `b`, so that the number of operations from `b` to
// the new value is what a block costs. All that does not hang on `b` is added up first, and where
// the parts of the round's function are disjoint they are added one by one as they come.
template <std::size_t step>
[[gnu::always_inline]] inline void make_step(chain_words& chain, const unsigned char* block) {
    std::uint32_t& a = chain[(64 - step) % 4];
    const std::uint32_t b = chain[(65 - step) % 4];
    const std::uint32_t c = chain[(66 - step) % 4];
    const std::uint32_t d = chain[(67 - step) % 4];
    constexpr std::size_t round = step / 16;

    std::uint32_t sum = a + sines[step] + load_word(block + 4 * word_of_step(step));
    if constexpr (round == 1) {
        sum += c & ~d;
    }
    complete(sum);
    if constexpr (round == 0) {
        sum += ((c ^ d) & b) ^ d;
    } else if constexpr (round == 1) {
        sum += b & d;
    } else if constexpr (round == 2) {
        sum += (c ^ d) ^ b;
    } else {
        sum += (b | ~d) ^ c;
    }
    a = b + std::rotl(sum, rotations[round][step % 4]);
}

template <std::size_t... steps>
[[gnu::always_inline]] inline void make_steps(chain_words& chain, const unsigned char* block,
                                              std::index_sequence<steps...> /*steps*/) {
    (make_step<steps>(chain, block), ...);
}

void transform(unsigned int (&state)[4], const unsigned char* data, std::size_t blocks) {
    chain_words chain = std::to_array(state);
    for (; blocks > 0; --blocks, data += block_size) {
        const chain_words before = chain;
        make_steps(chain, data, std::make_index_sequence<64>());
        std::transform(chain.begin(), chain.end(), before.begin(), chain.begin(), std::plus<>());
    }
    std::copy(chain.begin(), chain.end(), state);
}

std::size_t buffered(const md5_state_s& state) {
    return state.count[0] / 8 % block_size;
}

} // namespace

void KivMd5::md5_init(md5_state_s* state) {
    *state = {};
    constexpr chain_words start = {0x67452301U, 0xEFCDAB89U, 0x98BADCFEU, 0x10325476U};
    std::copy(start.begin(), start.end(), state->chain);
}

void KivMd5::md5_append(md5_state_s* state, const unsigned char* data, int length) {
    if (length <= 0) {
        return;
    }
    auto left = static_cast<std::size_t>(length);
    const std::size_t before = buffered(*state);
    const std::uint64_t bits =
        (std::uint64_t{state->count[1]} << 32U | state->count[0]) + std::uint64_t{left} * 8;
    state->count[0] = static_cast<std::uint32_t>(bits);
    state->count[1] = static_cast<std::uint32_t>(bits >> 32U);

    if (before > 0) {
        const std::size_t taken = std::min(left, block_size - before);
        std::copy_n(data, taken, state->buffer + before);
        if (before + taken < block_size) {
            return;
        }
        transform(state->chain, state->buffer, 1);
        data += taken;
        left -= taken;
    }
    transform(state->chain, data, left / block_size);
    std::copy_n(data + left / block_size * block_size, left % block_size, state->buffer);
}

void KivMd5::md5_finish(md5_state_s* state, unsigned char digest[16]) {
    constexpr std::size_t count_size = 8;
    unsigned char count[count_size];
    store_word(state->count[0], count);
    store_word(state->count[1], count + 4);

    // A one bit, then zeros up to the place of the count at the end of a block.
    static constexpr unsigned char padding[block_size] = {0x80};
    const std::size_t room = block_size - buffered(*state);
    const std::size_t padded =
        room > count_size ? room - count_size : room + block_size - count_size;
    md5_append(state, padding, static_cast<int>(padded));
    md5_append(state, count, count_size);

    for (std::size_t i = 0; i < 4; ++i) {
        store_word(state->chain[i], digest + 4 * i);
    }
}

void KivMd5::md5_process(md5_state_s* state, const unsigned char* block) {
    transform(state->chain, block, 1);
}

char* KivMd5::md5_string(unsigned char* digest, char* text) {
    static constexpr char digits[] = "0123456789abcdef";
    for (std::size_t i = 0; i < 16; ++i) {
        text[2 * i] = digits[digest[i] / 16];
        text[2 * i + 1] = digits[digest[i] % 16];
    }
    text[32] = '\0';
    return text;
}
