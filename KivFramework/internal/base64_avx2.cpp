#include "KivFramework/internal/base64_kernels.h"
#include "KivFramework/internal/base64_lanes.h"

#if defined(__x86_64__)

#include <cstdint>

#include <immintrin.h>

#define KIV_AVX2 [[gnu::target("avx2")]]

namespace KivFramework::internal {
namespace {

// One register of text: two lanes of four quartets.
constexpr std::size_t quartets_at_once = 2 * lane_quartets;
constexpr std::size_t text_size = quartets_at_once * base64_quartet_size;
constexpr std::size_t data_size = quartets_at_once * base64_group_size;

KIV_AVX2 inline __m128i load_lane(const void* bytes) {
    return _mm_loadu_si128(static_cast<const __m128i*>(bytes));
}

KIV_AVX2 inline __m256i load(const void* bytes) {
    return _mm256_loadu_si256(static_cast<const __m256i*>(bytes));
}

KIV_AVX2 inline __m256i in_both_lanes(const lane_table& table) {
    return _mm256_broadcastsi128_si256(load_lane(&table));
}

KIV_AVX2 inline void store(char* out, __m256i bytes) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), bytes);
}

// The text of the 24 bytes at `in`; nothing beyond them is read.
KIV_AVX2 inline __m256i text_of(const char* in) {
    static constexpr lane_table lower_spread = spread_lane_groups(0);
    static constexpr lane_table upper_spread = spread_lane_groups(lane_size - lane_data_size);
    const __m256i data = _mm256_inserti128_si256(_mm256_castsi128_si256(load_lane(in)),
                                                 load_lane(in + data_size - lane_size), 1);
    const __m256i groups = _mm256_shuffle_epi8(
        data, _mm256_inserti128_si256(in_both_lanes(lower_spread), load_lane(&upper_spread), 1));

    // A multiplication shifts the halves of every 32 bits each by its own count.
    const __m256i evens = _mm256_mulhi_epu16(
        _mm256_and_si256(groups, _mm256_set1_epi32(0x0FC0FC00)), _mm256_set1_epi32(0x04000040));
    const __m256i odds = _mm256_mullo_epi16(_mm256_and_si256(groups, _mm256_set1_epi32(0x003F03F0)),
                                            _mm256_set1_epi32(0x01000010));
    const __m256i values = _mm256_or_si256(evens, odds);

    const __m256i classes = _mm256_sub_epi8(_mm256_subs_epu8(values, _mm256_set1_epi8(51)),
                                            _mm256_cmpgt_epi8(values, _mm256_set1_epi8(25)));
    const __m256i offsets = _mm256_shuffle_epi8(in_both_lanes(lane_character_offsets), classes);
    return _mm256_add_epi8(values, offsets);
}

KIV_AVX2 void encode(const char* in, std::size_t groups, char* out) {
    constexpr std::size_t at_once = 4 * quartets_at_once;
    for (; groups >= at_once; groups -= at_once) {
        const __m256i text_0 = text_of(in);
        const __m256i text_1 = text_of(in + data_size);
        const __m256i text_2 = text_of(in + 2 * data_size);
        const __m256i text_3 = text_of(in + 3 * data_size);
        store(out, text_0);
        store(out + text_size, text_1);
        store(out + 2 * text_size, text_2);
        store(out + 3 * text_size, text_3);
        in += 4 * data_size;
        out += 4 * text_size;
    }
    for (; groups >= quartets_at_once; groups -= quartets_at_once) {
        store(out, text_of(in));
        in += data_size;
        out += text_size;
    }
    portable_base64_kernel.encode(in, groups, out);
}

// The rows that the two halves of each character share: 0 for one that is not of the alphabet.
KIV_AVX2 inline __m256i rows_of(__m256i text, __m256i upper_halves) {
    // The lower half of a byte beyond 0x7F counts as none.
    return _mm256_and_si256(
        _mm256_shuffle_epi8(in_both_lanes(lane_rows_of_lower_half), text),
        _mm256_shuffle_epi8(in_both_lanes(lane_rows_of_upper_half), upper_halves));
}

KIV_AVX2 inline __m256i upper_halves_of(__m256i text) {
    return _mm256_and_si256(_mm256_srli_epi16(text, 4), _mm256_set1_epi8(0x0F));
}

// The 12 bytes of data of each lane.
KIV_AVX2 inline __m256i data_of(__m256i text, __m256i upper_halves) {
    const __m256i offset_indexes =
        _mm256_add_epi8(upper_halves, _mm256_cmpeq_epi8(text, _mm256_set1_epi8('/')));
    const __m256i values = _mm256_add_epi8(
        text, _mm256_shuffle_epi8(in_both_lanes(lane_value_offsets), offset_indexes));
    // Joins four times six bits to 24 in every 32.
    const __m256i twelves = _mm256_maddubs_epi16(values, _mm256_set1_epi32(0x01400140));
    const __m256i groups = _mm256_madd_epi16(twelves, _mm256_set1_epi32(0x00011000));
    return _mm256_shuffle_epi8(groups, in_both_lanes(pack_lane_groups));
}

// Stores 24 bytes and four more, which the next store overwrites.
KIV_AVX2 inline void store_data(char* out, __m256i data) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm256_castsi256_si128(data));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + lane_data_size),
                     _mm256_extracti128_si256(data, 1));
}

// Stores exactly 24 bytes.
KIV_AVX2 inline void store_last_data(char* out, __m256i data) {
    const __m128i lower = _mm256_castsi256_si128(data);
    const __m128i upper = _mm256_extracti128_si256(data, 1);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), lower);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + data_size - lane_size),
                     _mm_alignr_epi8(upper, _mm_slli_si128(lower, 4), 12));
}

// Decodes one register; false leaves the output alone.
KIV_AVX2 inline bool decode_one(const char* in, char* out) {
    const __m256i text = load(in);
    const __m256i upper_halves = upper_halves_of(text);
    const __m256i faults = _mm256_cmpeq_epi8(rows_of(text, upper_halves), _mm256_setzero_si256());
    if (_mm256_movemask_epi8(faults) != 0) {
        return false;
    }
    store_last_data(out, data_of(text, upper_halves));
    return true;
}

// Decodes four registers; false leaves the output alone.
KIV_AVX2 inline bool decode_four(const char* in, char* out) {
    const __m256i text_0 = load(in);
    const __m256i text_1 = load(in + text_size);
    const __m256i text_2 = load(in + 2 * text_size);
    const __m256i text_3 = load(in + 3 * text_size);
    const __m256i upper_0 = upper_halves_of(text_0);
    const __m256i upper_1 = upper_halves_of(text_1);
    const __m256i upper_2 = upper_halves_of(text_2);
    const __m256i upper_3 = upper_halves_of(text_3);
    const __m256i least_rows =
        _mm256_min_epu8(_mm256_min_epu8(rows_of(text_0, upper_0), rows_of(text_1, upper_1)),
                        _mm256_min_epu8(rows_of(text_2, upper_2), rows_of(text_3, upper_3)));
    if (_mm256_movemask_epi8(_mm256_cmpeq_epi8(least_rows, _mm256_setzero_si256())) != 0) {
        return false;
    }
    store_data(out, data_of(text_0, upper_0));
    store_data(out + data_size, data_of(text_1, upper_1));
    store_data(out + 2 * data_size, data_of(text_2, upper_2));
    store_last_data(out + 3 * data_size, data_of(text_3, upper_3));
    return true;
}

KIV_AVX2 std::size_t decode(const char* in, std::size_t quartets, char* out) {
    std::size_t done = 0;
    const auto advance = [&](std::size_t count) {
        in += count * base64_quartet_size;
        out += count * base64_group_size;
        done += count;
    };

    constexpr std::size_t at_once = 4 * quartets_at_once;
    while (quartets - done >= at_once && decode_four(in, out)) {
        advance(at_once);
    }
    while (quartets - done >= quartets_at_once && decode_one(in, out)) {
        advance(quartets_at_once);
    }
    return done + portable_base64_kernel.decode(in, quartets - done, out);
}

bool usable() {
    return __builtin_cpu_supports("avx2");
}

} // namespace

constinit const base64_kernel avx2_base64_kernel = {"avx2", usable, encode, decode};

} // namespace KivFramework::internal

#endif
