#pragma once

#include "KivFramework/internal/byte_block.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

namespace KivFramework::internal {

/// What is written for each byte of a text.
class byte_forms {
public:
    struct form {
        std::array<char, 7> text; // the first `length` of them
        unsigned char length;
    };
    static constexpr std::size_t longest = std::tuple_size_v<decltype(form::text)>;

    /// Every byte stands for itself.
    constexpr byte_forms() {
        for (std::size_t byte = 0; byte < forms_.size(); ++byte) {
            forms_[byte] = {{static_cast<char>(byte)}, 1};
        }
    }

    constexpr void set(char byte, std::string_view text) {
        form& changed = forms_[static_cast<unsigned char>(byte)];
        std::copy(text.begin(), text.end(), changed.text.begin());
        changed.length = static_cast<unsigned char>(text.size());
    }

    const form& operator[](char byte) const { return forms_[static_cast<unsigned char>(byte)]; }

private:
    std::array<form, 256> forms_{};
};

// What follows goes by rules for the forms of bytes. They have the `forms`, and of a block
// `find_changed`, where its bytes do not stand for themselves, and `add_growth`, by how much the
// form of each byte is longer than the byte.

/// Whether every byte of a text stands for itself.
template <typename rules>
bool stands_for_itself(std::string_view text) {
    for (; text.size() >= sizeof(byte_block); text.remove_prefix(sizeof(byte_block))) {
        byte_block block;
        load_block(text.data(), block);
        block_places changed;
        rules::find_changed(block, changed);
        if (anywhere(changed)) {
            return false;
        }
    }
    return std::all_of(text.begin(), text.end(), [](char byte) {
        const byte_forms::form& form = rules::forms[byte];
        return form.length == 1 && form.text[0] == byte;
    });
}

/// Whether a number has more than four bits set.
constexpr bool has_many_bits(unsigned int bits) {
    for (int left = 4; left > 0; --left) {
        bits &= bits - 1; // without the lowest one
    }
    return bits != 0;
}

/// Writes every byte of a text in the form that `rules` has for it.
template <typename rules>
std::string escape_bytes(std::string_view text) {
    const std::size_t blocks = text.size() / sizeof(byte_block);
    const std::string_view rest = text.substr(blocks * sizeof(byte_block));
    const std::size_t growth = sum_over_blocks<byte_forms::longest>(
        text, [](const byte_block& block, byte_block& sums) { rules::add_growth(block, sums); });
    // A form is written with the room that it does not use; the next one goes over that.
    std::string escaped(blocks * sizeof(byte_block) + growth + rest.size() * byte_forms::longest +
                            sizeof(byte_forms::form),
                        '\0');
    char* out = escaped.data();
    const auto write_form = [&out](char byte) {
        const byte_forms::form form = rules::forms[byte];
        std::memcpy(out, &form, sizeof(form));
        out += form.length;
    };

    const char* in = text.data();
    for (std::size_t left = blocks; left > 0; --left) {
        const char* const block_end = in + sizeof(byte_block);
        byte_block block;
        load_block(in, block);
        block_places changed;
        rules::find_changed(block, changed);
        unsigned int bits = place_bits(changed);
        // A few bytes are written between copies of what lies before and behind them. A copy is a
        // whole block, from any byte of this one, so there has to be another one behind it.
        if (bits != 0 && (left == 1 || has_many_bits(bits))) {
            for (; in != block_end; ++in) {
                write_form(*in);
            }
            continue;
        }
        const char* const block_begin = in;
        for (; bits != 0; bits &= bits - 1) {
            store_block(block, out);
            const char* const place = block_begin + std::countr_zero(bits);
            out += place - in;
            write_form(*place);
            in = place + 1;
            load_block(in, block);
        }
        store_block(block, out);
        out += block_end - in;
        in = block_end;
    }
    for (const char byte : rest) {
        write_form(byte);
    }
    escaped.resize(static_cast<std::size_t>(out - escaped.data()));
    return escaped;
}

struct byte_replacement {
    char byte;
    char text[byte_forms::longest + 1]; // with its terminator

    constexpr std::string_view view() const { return text; }
    constexpr unsigned char growth() const { return static_cast<unsigned char>(view().size() - 1); }
};

/// Replaces single bytes by longer texts.
template <byte_replacement... replacements>
class byte_replacing {
public:
    static std::string replace(std::string&& text) {
        // Most texts have none of the bytes, and the C library looks for one byte the quickest. The
        // end of a text that was just copied is the part that the processor's cache still has.
        if (((::memrchr(text.data(), replacements.byte, text.size()) == nullptr) && ...)) {
            return std::move(text);
        }
        return escape_bytes<byte_replacing>(text);
    }

    static constexpr byte_forms forms = []() {
        byte_forms made;
        (made.set(replacements.byte, replacements.view()), ...);
        return made;
    }();

    static void find_changed(const byte_block& block, block_places& changed) {
        changed = ((block == replacements.byte) | ...);
    }

    static void add_growth(const byte_block& block, byte_block& sums) {
        sums += ((byte_block(block == replacements.byte) & replacements.growth()) | ...);
    }
};

} // namespace KivFramework::internal
