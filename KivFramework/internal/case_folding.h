#pragma once

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace KivFramework::internal {

/// Folds case byte by byte, as the C library's `tolower` does in the locale in which the object is
/// made; a table is quicker than a call for every byte of a large text.
class case_folding {
public:
    case_folding() {
        for (std::size_t byte = 0; byte < lower_.size(); ++byte) {
            lower_[byte] = static_cast<unsigned char>(std::tolower(static_cast<int>(byte)));
        }
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

    /// The same for texts that differ in case alone.
    std::uint32_t hash(std::string_view text) const {
        constexpr std::uint64_t multiplier = 0x9E3779B97F4A7C15U;
        std::uint64_t hash = text.size();
        while (!text.empty()) {
            const std::string_view part = text.substr(0, sizeof(hash));
            text.remove_prefix(part.size());
            std::uint64_t number = 0;
            for (const char byte : part) {
                number = number << 8U | folded(byte);
            }
            hash = (hash ^ number) * multiplier;
            hash ^= hash >> 32U;
        }
        return static_cast<std::uint32_t>(hash);
    }

private:
    unsigned char folded(char byte) const { return lower_[static_cast<unsigned char>(byte)]; }

    std::array<unsigned char, 256> lower_;
};

} // namespace KivFramework::internal
