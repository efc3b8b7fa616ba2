#include "KivFramework/internal/base64_kernels.h"
#include "KivFramework/internal/base64_lanes.h"

#if defined(__x86_64__)

#include <cstdint>

#include <immintrin.h>

#define KIV_SSSE3 [[gnu::target("ssse3")]]

namespace KivFramework::internal {
namespace {

KIV_SSSE3 inline __m128i load(const void* bytes) {
    return _mm_loadu_si128(static_cast<const __m128i*>(bytes));
}

KIV_SSSE3 inline void store(char* out, __m128i bytes) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), bytes);
}

// The text of 12 bytes, which `spread` finds in the lane.
KIV_SSSE3 inline __m128i text_of(__m128i data, const lane_table& spread) {
    const __m128i groups = _mm_shuffle_epi8(data, load(&spread));

    // A multiplication shifts the halves of every 32 bits each by its own count.
    const __m128i evens = _mm_mulhi_epu16(_mm_and_si128(groups, _mm_set1_epi32(0x0FC0FC00)),
                                          _mm_set1_epi32(0x04000040));
    const __m128i odds = _mm_mullo_epi16(_mm_and_si128(groups, _mm_set1_epi32(0x003F03F0)),
                                         _mm_set1_epi32(0x01000010));
    const __m128i values = _mm_or_si128(evens, odds);

    const __m128i classes = _mm_sub_epi8(_mm_subs_epu8(values, _mm_set1_epi8(51)),
                                         _mm_cmpgt_epi8(values, _mm_set1_epi8(25)));
    return _mm_add_epi8(values, _mm_shuffle_epi8(load(&lane_character_offsets), classes));
}

KIV_SSSE3 void encode(const char* in, std::size_t groups, char* out) {
    static constexpr lane_table spread = spread_lane_groups(0);
    static constexpr lane_table spread_at_end = spread_lane_groups(lane_size - lane_data_size);
    constexpr std::size_t at_once = 2 * lane_quartets;
    for (; groups >= at_once; groups -= at_once) {
        // The second lane is loaded so that it ends with its data, to read nothing beyond.
        const __m128i text_0 = text_of(load(in), spread);
        const __m128i text_1 = text_of(load(in + 2 * lane_data_size - lane_size), spread_at_end);
        store(out, text_0);
        store(out + lane_size, text_1);
        in += 2 * lane_data_size;
        out += 2 * lane_size;
    }
    portable_base64_kernel.encode(in, groups, out);
}

KIV_SSSE3 inline __m128i upper_halves_of(__m128i text) {
    return _mm_and_si128(_mm_srli_epi16(text, 4), _mm_set1_epi8(0x0F));
}

// The rows that the two halves of each character share: 0 for one that is not of the alphabet.
KIV_SSSE3 inline __m128i rows_of(__m128i text, __m128i upper_halves) {
    // The lower half of a byte beyond 0x7F counts as none.
    return _mm_and_si128(_mm_shuffle_epi8(load(&lane_rows_of_lower_half), text),
                         _mm_shuffle_epi8(load(&lane_rows_of_upper_half), upper_halves));
}

// The 12 bytes of data of a lane.
KIV_SSSE3 inline __m128i data_of(__m128i text, __m128i upper_halves) {
    const __m128i offset_indexes =
        _mm_add_epi8(upper_halves, _mm_cmpeq_epi8(text, _mm_set1_epi8('/')));
    const __m128i values =
        _mm_add_epi8(text, _mm_shuffle_epi8(load(&lane_value_offsets), offset_indexes));
    // Joins four times six bits to 24 in every 32.
    const __m128i twelves = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
    const __m128i groups = _mm_madd_epi16(twelves, _mm_set1_epi32(0x00011000));
    return _mm_shuffle_epi8(groups, load(&pack_lane_groups));
}

// Decodes two lanes into exactly 24 bytes; false leaves the output alone.
KIV_SSSE3 inline bool decode_two(const char* in, char* out) {
    const __m128i text_0 = load(in);
    const __m128i text_1 = load(in + lane_size);
    const __m128i upper_0 = upper_halves_of(text_0);
    const __m128i upper_1 = upper_halves_of(text_1);
    const __m128i least_rows = _mm_min_epu8(rows_of(text_0, upper_0), rows_of(text_1, upper_1));
    if (_mm_movemask_epi8(_mm_cmpeq_epi8(least_rows, _mm_setzero_si128())) != 0) {
        return false;
    }
    const __m128i data_0 = data_of(text_0, upper_0);
    const __m128i data_1 = data_of(text_1, upper_1);
    store(out, data_0);
    store(out + 2 * lane_data_size - lane_size,
          _mm_alignr_epi8(data_1, _mm_slli_si128(data_0, 4), 12));
    return true;
}

KIV_SSSE3 std::size_t decode(const char* in, std::size_t quartets, char* out) {
    constexpr std::size_t at_once = 2 * lane_quartets;
    std::size_t done = 0;
    for (; quartets - done >= at_once && decode_two(in, out); done += at_once) {
        in += 2 * lane_size;
        out += 2 * lane_data_size;
    }
    return done + portable_base64_kernel.decode(in, quartets - done, out);
}

bool usable() {
    return __builtin_cpu_supports("ssse3");
}

} // namespace

constinit const base64_kernel ssse3_base64_kernel = {"ssse3", usable, encode, decode};

} // namespace KivFramework::internal

#endif
