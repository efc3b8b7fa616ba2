#pragma once

#include "KivFramework/internal/byte_block.h"

#include <cstddef>
#include <string>

namespace KivFramework::internal {

/// The letters that ASCII has of one case, and their change into the other, where one bit differs.
class ascii_letters {
public:
    constexpr explicit ascii_letters(char first) : first_(static_cast<unsigned char>(first)) {}

    unsigned char folded(unsigned char byte) const {
        const bool is_letter = static_cast<unsigned char>(byte - first_) < count;
        return is_letter ? byte ^ case_bit : byte;
    }

    void fold(std::string& text) const {
        char* bytes = text.data();
        char* const end = bytes + text.size();
        for (std::size_t left = text.size() / sizeof(byte_block); left > 0; --left) {
            byte_block block;
            load_block(bytes, block);
            fold(block);
            store_block(block, bytes);
            bytes += sizeof(block);
        }
        for (; bytes != end; ++bytes) {
            *bytes = static_cast<char>(folded(static_cast<unsigned char>(*bytes)));
        }
    }

private:
    static constexpr unsigned char case_bit = 0x20;
    static constexpr unsigned char count = 26;

    void fold(byte_block& block) const { block ^= byte_block(block - first_ < count) & case_bit; }

    unsigned char first_;
};

} // namespace KivFramework::internal
