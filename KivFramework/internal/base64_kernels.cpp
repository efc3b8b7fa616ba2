#include "KivFramework/internal/base64_kernels.h"

#include <algorithm>
#include <iterator>

namespace KivFramework::internal {
namespace {

void encode_portably(const char* in, std::size_t groups, char* out) {
    for (; groups > 0; --groups) {
        const auto first = static_cast<unsigned char>(in[0]);
        const auto second = static_cast<unsigned char>(in[1]);
        const auto third = static_cast<unsigned char>(in[2]);
        out[0] = base64_alphabet[first >> 2U];
        out[1] = base64_alphabet[(first & 0x03U) << 4U | second >> 4U];
        out[2] = base64_alphabet[(second & 0x0FU) << 2U | third >> 6U];
        out[3] = base64_alphabet[third & 0x3FU];
        in += base64_group_size;
        out += base64_quartet_size;
    }
}

// The value of a character, negative for one that is not of the alphabet.
std::int32_t value_of(char c) {
    return base64_values[static_cast<unsigned char>(c)];
}

std::size_t decode_portably(const char* in, std::size_t quartets, char* out) {
    for (std::size_t done = 0; done < quartets; ++done) {
        // One negative value makes the whole negative: its sign bits survive the shift.
        const std::int32_t bits =
            value_of(in[0]) << 18 | value_of(in[1]) << 12 | value_of(in[2]) << 6 | value_of(in[3]);
        if (bits < 0) {
            return done;
        }
        out[0] = static_cast<char>(bits >> 16);
        out[1] = static_cast<char>(bits >> 8);
        out[2] = static_cast<char>(bits);
        in += base64_quartet_size;
        out += base64_group_size;
    }
    return quartets;
}

bool always_usable() {
    return true;
}

constexpr const base64_kernel* all_kernels[] = {
#if defined(__x86_64__)
    &avx512_base64_kernel,
    &avx2_base64_kernel,
    &ssse3_base64_kernel,
#endif
    &portable_base64_kernel,
};

const base64_kernel& best_kernel() {
    const auto is_named = [](const base64_kernel* kernel) {
        return kernel->name == KIV_BASE64_KERNEL && kernel->usable();
    };
    const auto* const named =
        std::find_if(std::begin(all_kernels), std::end(all_kernels), is_named);
    if (named != std::end(all_kernels)) {
        return **named;
    }
    for (const base64_kernel* const kernel : all_kernels) {
        if (kernel->usable()) {
            return *kernel;
        }
    }
    return portable_base64_kernel;
}

} // namespace

constinit const base64_kernel portable_base64_kernel = {"portable", always_usable, encode_portably,
                                                        decode_portably};

std::span<const base64_kernel* const> base64_kernels() {
    return all_kernels;
}

const base64_kernel& chosen_base64_kernel() {
    static const base64_kernel& chosen = best_kernel();
    return chosen;
}

} // namespace KivFramework::internal
