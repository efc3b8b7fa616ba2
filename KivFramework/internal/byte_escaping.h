#pragma once

#include "KivFramework/internal/byte_block.h"

#include <algorithm>
#include <array>
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

/// Writes every byte of a text in the form that `rules` has for it.
///
/// \tparam rules  `forms`, and of a block `find_changed`, where its bytes do not stand for
///                themselves, and `add_growth`, by how much the form of each byte is longer than
///                the byte.
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
        byte_block block;
        load_block(in, block);
        block_places changed;
        rules::find_changed(block, changed);
        if (anywhere(changed)) {
            for (std::size_t i = 0; i < sizeof(block); ++i) {
                write_form(in[i]);
            }
        } else {
            store_block(block, out);
            out += sizeof(block);
        }
        in += sizeof(block);
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
        // Most texts have none of the bytes, and the C library looks for one byte the quickest.
        if (((text.find(replacements.byte) == std::string::npos) && ...)) {
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
