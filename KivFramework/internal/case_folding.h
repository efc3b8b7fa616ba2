#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace KivFramework::internal {

/// Folds case byte by byte, as the C library's `tolower` does in the locale in which the object is
/// made; a table that is quicker than a call for every byte of a large text.
class case_folding {
public:
    case_folding();

    void append_folded(std::string& out, std::string_view text) const;

    bool equal(std::string_view left, std::string_view right) const;
    bool begins_with(std::string_view text, std::string_view prefix) const;

    /// The same for texts that differ in case alone.
    std::uint32_t hash(std::string_view text) const;

private:
    unsigned char folded(char byte) const { return lower_[static_cast<unsigned char>(byte)]; }

    std::array<unsigned char, 256> lower_;
};

} // namespace KivFramework::internal
