#pragma once

#include "KivFramework/internal/base64_kernels.h"

#include <array>
#include <cstddef>
#include <cstdint>

/// The tables of the kernels that work in lanes of 16 bytes: four quartets of text, or four groups
/// of data in 12 of the bytes. Each is the operand of one byte shuffle within the lane.
namespace KivFramework::internal {

constexpr std::size_t lane_size = 16;
constexpr std::size_t lane_quartets = lane_size / base64_quartet_size;
constexpr std::size_t lane_data_size = lane_quartets * base64_group_size;

using lane_table = std::array<std::uint8_t, lane_size>;

/// For each group, the bytes 1, 0, 2, 1: its four runs of six bits then lie within 16 bits each.
/// The data begins at byte `start` of the lane.
constexpr lane_table spread_lane_groups(std::size_t start) {
    lane_table bytes{};
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        constexpr std::array<std::size_t, 4> order = {1, 0, 2, 1};
        bytes[i] = static_cast<std::uint8_t>(start + i / 4 * 3 + order[i % 4]);
    }
    return bytes;
}

/// What to add to a value to make it a character, by the class of the value: 0 for 0 to 25, 1 for
/// 26 to 51, then one class for each value.
constexpr lane_table lane_character_offsets = []() {
    lane_table offsets{};
    offsets[0] = 'A';
    for (std::size_t value = 26; value < base64_alphabet.size(); ++value) {
        offsets[value < 52 ? 1 : value - 50] =
            static_cast<std::uint8_t>(static_cast<std::size_t>(base64_alphabet[value]) - value);
    }
    return offsets;
}();

/// The rows of the alphabet: characters whose upper four bits are the same have one of these bits,
/// and so have those whose lower four bits may stand with it. A character is of the alphabet when
/// its two halves share a bit.
constexpr lane_table lane_rows_of_upper_half = {0, 0, 1, 2, 4, 8, 4, 8};
constexpr lane_table lane_rows_of_lower_half = []() {
    lane_table rows{};
    for (std::size_t byte = 0; byte < 128; ++byte) {
        if (base64_values[byte] >= 0) {
            rows[byte % 16] |= lane_rows_of_upper_half[byte / 16];
        }
    }
    return rows;
}();

/// What to add to a character to make it a value, by its upper four bits, less 1 for the slash.
constexpr lane_table lane_value_offsets = []() {
    lane_table offsets{};
    for (std::size_t byte = 0; byte < 128; ++byte) {
        if (base64_values[byte] >= 0) {
            offsets[byte / 16 - (byte == '/' ? 1 : 0)] =
                static_cast<std::uint8_t>(static_cast<std::size_t>(base64_values[byte]) - byte);
        }
    }
    return offsets;
}();

/// The three bytes of each 32 bits, the upper one first; the last four bytes become 0.
constexpr lane_table pack_lane_groups = []() {
    lane_table bytes{};
    bytes.fill(0x80);
    for (std::size_t i = 0; i < lane_data_size; ++i) {
        bytes[i] = static_cast<std::uint8_t>(i / 3 * 4 + 2 - i % 3);
    }
    return bytes;
}();

} // namespace KivFramework::internal
