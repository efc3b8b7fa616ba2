#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

/// The inner loops of Base64: whole groups of three bytes against quartets of four characters,
/// without padding. Each kernel reads and writes exactly the bytes that its result names, so that
/// buffers may end anywhere, and the output of `decode` may lie at or before its input.
namespace KivFramework::internal {

constexpr std::size_t base64_group_size = 3;
constexpr std::size_t base64_quartet_size = 4;

constexpr std::string_view base64_alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// The six bits of each character of the alphabet, and -1 for every other byte.
constexpr std::array<std::int8_t, 256> base64_values = []() {
    std::array<std::int8_t, 256> values{};
    values.fill(-1);
    for (std::size_t i = 0; i < base64_alphabet.size(); ++i) {
        values[static_cast<unsigned char>(base64_alphabet[i])] = static_cast<std::int8_t>(i);
    }
    return values;
}();

struct base64_kernel {
    std::string_view name; ///< as the build switch KIV_BASE64_KERNEL calls it

    /// Tells whether this machine can run it: its processor and its operating system.
    bool (*usable)();

    /// Encodes `groups` groups of three bytes.
    void (*encode)(const char* in, std::size_t groups, char* out);

    /// Decodes up to `quartets` quartets, stopping before the first one with a character that is
    /// not of the alphabet.
    ///
    /// \returns the number of quartets decoded, each into three bytes.
    std::size_t (*decode)(const char* in, std::size_t quartets, char* out);
};

extern const base64_kernel portable_base64_kernel;
#if defined(__x86_64__)
extern const base64_kernel avx512_base64_kernel;
extern const base64_kernel avx2_base64_kernel;
extern const base64_kernel ssse3_base64_kernel;
#endif

/// All kernels of this architecture, the fastest first, the portable one last.
std::span<const base64_kernel* const> base64_kernels();

/// The kernel of choice, which does not change while the program runs: the fastest that the machine
/// can run, unless the build named another that it can run.
const base64_kernel& chosen_base64_kernel();

} // namespace KivFramework::internal
