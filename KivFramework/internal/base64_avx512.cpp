#include "KivFramework/internal/base64_kernels.h"

#if defined(__x86_64__)

#include <algorithm>
#include <cstdint>

#include <immintrin.h>

#define KIV_AVX512 [[gnu::target("avx512f,avx512bw,avx512vbmi,prfchw")]]

namespace KivFramework::internal {
namespace {

// One register of text: 16 quartets.
constexpr std::size_t quartets_at_once = 16;
constexpr std::size_t text_size = quartets_at_once * base64_quartet_size;
constexpr std::size_t data_size = quartets_at_once * base64_group_size;

// Where there is enough of it, four registers go through a loop together.
constexpr std::size_t at_once = 4 * quartets_at_once;

using table = std::array<std::uint8_t, 64>;

// For each group the bytes 1, 0, 2, 1, so that its four characters are runs of six bits. The data
// begins at byte `start` of the register.
constexpr table spread_groups(std::size_t start) {
    table bytes{};
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        constexpr std::array<std::size_t, 4> order = {1, 0, 2, 1};
        bytes[i] = static_cast<std::uint8_t>(start + i / 4 * 3 + order[i % 4]);
    }
    return bytes;
}

// Where the runs of two spread groups begin, in bits.
constexpr table run_starts = []() {
    table starts{};
    for (std::size_t i = 0; i < starts.size(); ++i) {
        constexpr std::array<std::uint8_t, 8> pattern = {10, 4, 22, 16, 42, 36, 54, 48};
        starts[i] = pattern[i % 8];
    }
    return starts;
}();

constexpr table alphabet = []() {
    table characters{};
    std::copy(base64_alphabet.begin(), base64_alphabet.end(), characters.begin());
    return characters;
}();

// The values of the bytes from `first` on, with the highest bit set for those that have none.
constexpr table values_from(std::size_t first) {
    table values{};
    for (std::size_t i = 0; i < values.size(); ++i) {
        values[i] = static_cast<std::uint8_t>(base64_values[first + i]);
    }
    return values;
}

// The bytes of the register `source` (of four, each with 24 bits in every 32) that make up the
// register `target` (of three), and which bytes of the target they are.
struct packing {
    table bytes;
    std::uint64_t mask;
};

constexpr packing pack_groups(std::size_t source, std::size_t target) {
    packing made{};
    for (std::size_t i = 0; i < made.bytes.size(); ++i) {
        const std::size_t byte = 64 * target + i;
        if (byte / data_size == source) {
            const std::size_t own = byte % data_size;
            made.bytes[i] = static_cast<std::uint8_t>(own / 3 * 4 + 2 - own % 3);
            made.mask |= std::uint64_t{1} << i;
        }
    }
    return made;
}

alignas(64) constexpr table spread = spread_groups(0);
alignas(64) constexpr table spread_behind_16 = spread_groups(16);
alignas(64) constexpr table lower_values = values_from(0);
alignas(64) constexpr table upper_values = values_from(64);
alignas(64) constexpr packing pack_0_0 = pack_groups(0, 0);
alignas(64) constexpr packing pack_1_0 = pack_groups(1, 0);
alignas(64) constexpr packing pack_1_1 = pack_groups(1, 1);
alignas(64) constexpr packing pack_2_1 = pack_groups(2, 1);
alignas(64) constexpr packing pack_2_2 = pack_groups(2, 2);
alignas(64) constexpr packing pack_3_2 = pack_groups(3, 2);

KIV_AVX512 inline __m512i load(const void* bytes) {
    return _mm512_loadu_si512(bytes);
}

// The forms without a mask make g++ 12 warn of an uninitialised operand of its own.
constexpr __mmask64 all_bytes = ~__mmask64{0};

KIV_AVX512 inline __m512i permuted(__m512i bytes, __m512i order) {
    return _mm512_maskz_permutexvar_epi8(all_bytes, order, bytes);
}

KIV_AVX512 inline __m512i text_of(__m512i data, __m512i spread_order) {
    const __m512i spread_data = permuted(data, spread_order);
    const __m512i runs =
        _mm512_maskz_multishift_epi64_epi8(all_bytes, load(&run_starts), spread_data);
    return permuted(load(&alphabet), runs); // looks at six bits of each byte
}

constexpr std::uint64_t first_bytes(std::size_t count) {
    return count == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << count) - 1;
}

// Encodes one register or less.
KIV_AVX512 inline void encode_some(const char* in, std::size_t groups, char* out) {
    const __m512i data = _mm512_maskz_loadu_epi8(first_bytes(groups * base64_group_size), in);
    _mm512_mask_storeu_epi8(out, first_bytes(groups * base64_quartet_size),
                            text_of(data, load(&spread)));
}

// Encodes four registers.
KIV_AVX512 inline void encode_four(const char* in, char* out) {
    const __m512i all = load(&spread);
    const __m512i text_0 = text_of(load(in), all);
    const __m512i text_1 = text_of(load(in + data_size), all);
    const __m512i text_2 = text_of(load(in + 2 * data_size), all);
    // Loaded so that it ends with its data, to read nothing beyond.
    const __m512i text_3 = text_of(load(in + 3 * data_size - 16), load(&spread_behind_16));
    _mm512_storeu_si512(out, text_0);
    _mm512_storeu_si512(out + text_size, text_1);
    _mm512_storeu_si512(out + 2 * text_size, text_2);
    _mm512_storeu_si512(out + 3 * text_size, text_3);
}

// Fetches what `encode_four` will need a few calls later; the output ready to be written, so that
// its lines are not fetched a second time for that.
KIV_AVX512 inline void fetch_ahead(const char* in, const char* out) {
    constexpr std::size_t distance = 1024;
    for (std::size_t line = 0; line < 3; ++line) {
        __builtin_prefetch(in + distance + 64 * line);
    }
    for (std::size_t line = 0; line < 4; ++line) {
        __builtin_prefetch(out + distance + 64 * line, 1);
    }
}

KIV_AVX512 void encode(const char* in, std::size_t groups, char* out) {
    const auto advance = [&](std::size_t done) {
        in += done * base64_group_size;
        out += done * base64_quartet_size;
        groups -= done;
    };

    // Stores across cache lines cost twice.
    const std::size_t to_line = -reinterpret_cast<std::uintptr_t>(out) % 64;
    if (groups > 2 * at_once && to_line % base64_quartet_size == 0) {
        encode_some(in, to_line / base64_quartet_size, out);
        advance(to_line / base64_quartet_size);
    }
    // Nothing beyond the buffers is fetched: it may belong to another thread.
    for (; groups >= 7 * at_once; advance(at_once)) {
        fetch_ahead(in, out);
        encode_four(in, out);
    }
    for (; groups >= at_once; advance(at_once)) {
        encode_four(in, out);
    }
    while (groups > 0) {
        const std::size_t some = std::min(groups, quartets_at_once);
        encode_some(in, some, out);
        advance(some);
    }
}

KIV_AVX512 inline __m512i values_of(__m512i text) {
    return _mm512_permutex2var_epi8(load(&lower_values), text, load(&upper_values));
}

// Joins four times six bits to 24 in every 32.
KIV_AVX512 inline __m512i joined(__m512i values) {
    const __m512i twelves = _mm512_maddubs_epi16(values, _mm512_set1_epi32(0x01400140));
    return _mm512_madd_epi16(twelves, _mm512_set1_epi32(0x00011000));
}

KIV_AVX512 inline __m512i packed(__m512i first, const packing& from_first, __m512i second,
                                 const packing& from_second) {
    return _mm512_mask_permutexvar_epi8(permuted(first, load(&from_first.bytes)), from_second.mask,
                                        load(&from_second.bytes), second);
}

// Has the highest bit set where a byte of the text has no value, or is itself beyond the tables.
KIV_AVX512 inline __m512i faults(__m512i text, __m512i values) {
    return _mm512_or_si512(text, values);
}

// Decodes one register or less; false leaves the output alone.
KIV_AVX512 inline bool decode_some(const char* in, std::size_t quartets, char* out) {
    const __m512i text = _mm512_mask_loadu_epi8(_mm512_set1_epi8('A'),
                                                first_bytes(quartets * base64_quartet_size), in);
    const __m512i values = values_of(text);
    if (_mm512_movepi8_mask(faults(text, values)) != 0) {
        return false;
    }
    _mm512_mask_storeu_epi8(out, first_bytes(quartets * base64_group_size),
                            permuted(joined(values), load(&pack_0_0.bytes)));
    return true;
}

// Decodes four registers; false leaves the output alone.
KIV_AVX512 inline bool decode_four(const char* in, char* out) {
    __m512i text_0 = load(in);
    __m512i text_1 = load(in + text_size);
    __m512i text_2 = load(in + 2 * text_size);
    __m512i text_3 = load(in + 3 * text_size);
    // Keeps the compiler from loading them once more for the check, which costs a sixth.
    asm("" : "+v"(text_0), "+v"(text_1), "+v"(text_2), "+v"(text_3));
    const __m512i values_0 = values_of(text_0);
    const __m512i values_1 = values_of(text_1);
    const __m512i values_2 = values_of(text_2);
    const __m512i values_3 = values_of(text_3);
    const __m512i all_faults =
        _mm512_or_si512(_mm512_or_si512(faults(text_0, values_0), faults(text_1, values_1)),
                        _mm512_or_si512(faults(text_2, values_2), faults(text_3, values_3)));
    if (_mm512_movepi8_mask(all_faults) != 0) {
        return false;
    }
    const __m512i data_0 = joined(values_0);
    const __m512i data_1 = joined(values_1);
    const __m512i data_2 = joined(values_2);
    const __m512i data_3 = joined(values_3);
    _mm512_storeu_si512(out, packed(data_0, pack_0_0, data_1, pack_1_0));
    _mm512_storeu_si512(out + 64, packed(data_1, pack_1_1, data_2, pack_2_1));
    _mm512_storeu_si512(out + 128, packed(data_2, pack_2_2, data_3, pack_3_2));
    return true;
}

// Decodes one register after the other, up to one with a fault.
KIV_AVX512 std::size_t decode_singly(const char* in, std::size_t quartets, char* out) {
    std::size_t done = 0;
    while (done < quartets) {
        const std::size_t some = std::min(quartets - done, quartets_at_once);
        if (!decode_some(in + done * base64_quartet_size, some, out + done * base64_group_size)) {
            break;
        }
        done += some;
    }
    return done;
}

KIV_AVX512 std::size_t decode(const char* in, std::size_t quartets, char* out) {
    const auto text = [in](std::size_t done) { return in + done * base64_quartet_size; };
    const auto data = [out](std::size_t done) { return out + done * base64_group_size; };

    std::size_t done = 0;
    if (quartets > 4 * at_once) {
        // Up to a group that ends with its cache line: 21 times 3 is 1 less than 64.
        done = decode_singly(in, reinterpret_cast<std::uintptr_t>(out) * 21 % 64, out);
    }
    while (quartets - done >= at_once && decode_four(text(done), data(done))) {
        done += at_once;
    }
    done += decode_singly(text(done), quartets - done, data(done));
    return done + portable_base64_kernel.decode(text(done), quartets - done, data(done));
}

bool usable() {
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
           __builtin_cpu_supports("avx512vbmi");
}

} // namespace

constinit const base64_kernel avx512_base64_kernel = {"avx512vbmi", usable, encode, decode};

} // namespace KivFramework::internal

#endif
