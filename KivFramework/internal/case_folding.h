#pragma once

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace KivFramework::internal {

/// Folds case byte by byte, as the C library's `tolower` does in the locale in which the object is
/// made; a table is quicker than a call for every byte of a large text.
class case_folding {
public:
    case_folding() {
        unsigned char changed = 0;
        for (std::size_t byte = 0; byte < lower_.size(); ++byte) {
            lower_[byte] = static_cast<unsigned char>(std::tolower(static_cast<int>(byte)));
            changed |= static_cast<unsigned char>(byte ^ lower_[byte]);
        }
        unchanged_bits_ = ~(changed * std::uint64_t{0x0101010101010101U});
    }

    void append_folded(std::string& out, std::string_view text) const {
        const std::size_t size = out.size();
        out.resize(size + text.size());
        std::transform(text.begin(), text.end(), out.data() + size,
                       [this](char byte) { return static_cast<char>(folded(byte)); });
    }

    bool begins_with(std::string_view text, std::string_view prefix) const {
        const auto equal = [this](char left, char right) { return folded(left) == folded(right); };
        return text.starts_with(prefix) ||
               (text.size() >= prefix.size() &&
                std::equal(prefix.begin(), prefix.end(), text.begin(), equal));
    }

    /// The same for texts that differ in case alone: it leaves out the bits that case changes.
    std::uint32_t hash(std::string_view text) const {
        constexpr std::uint64_t multiplier = 0x9E3779B97F4A7C15U;
        constexpr std::size_t word_size = sizeof(std::uint64_t);
        std::uint64_t hash = text.size();
        const auto mix = [this, &hash](std::uint64_t bytes) {
            hash = (hash ^ (bytes & unchanged_bits_)) * multiplier;
            hash ^= hash >> 32U;
        };
        for (; text.size() >= word_size; text.remove_prefix(word_size)) {
            mix(number_at<std::uint64_t>(text.data()));
        }
        mix(number_of_rest(text));
        return static_cast<std::uint32_t>(hash * multiplier >> 32U);
    }

private:
    unsigned char folded(char byte) const { return lower_[static_cast<unsigned char>(byte)]; }

    template <typename number>
    static number number_at(const char* bytes) {
        number result = 0;
        std::memcpy(&result, bytes, sizeof(result));
        return result;
    }

    // All of fewer than eight bytes, some of them twice: that is quicker than to count them.
    static std::uint64_t number_of_rest(std::string_view rest) {
        if (rest.size() >= sizeof(std::uint32_t)) {
            const char* const last = rest.data() + rest.size() - sizeof(std::uint32_t);
            return std::uint64_t{number_at<std::uint32_t>(rest.data())} << 32U |
                   number_at<std::uint32_t>(last);
        }
        if (rest.empty()) {
            return 0;
        }
        const auto byte = [rest](std::size_t at) {
            return std::uint64_t{static_cast<unsigned char>(rest[at])};
        };
        return byte(0) << 16U | byte(rest.size() / 2) << 8U | byte(rest.size() - 1);
    }

    std::array<unsigned char, 256> lower_;
    std::uint64_t unchanged_bits_; // eight times those that are the same in both cases of all bytes
};

} // namespace KivFramework::internal
