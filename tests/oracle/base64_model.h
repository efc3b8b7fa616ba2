#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kiv_test {

constexpr std::string_view base64_model_alphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// Base64 as a string of bits: eight of each byte in, six for each character out, padded with zero
/// bits to a character and with "=" to a quartet.
inline std::string base64_encode_model(std::string_view data) {
    std::string bits;
    for (const char c : data) {
        for (int bit = 7; bit >= 0; --bit) {
            bits += (static_cast<unsigned char>(c) >> bit) % 2 == 1 ? '1' : '0';
        }
    }
    while (bits.size() % 6 != 0) {
        bits += '0';
    }
    std::string text;
    for (std::size_t i = 0; i < bits.size(); i += 6) {
        std::size_t value = 0;
        for (std::size_t bit = i; bit < i + 6; ++bit) {
            value = 2 * value + (bits[bit] == '1' ? 1 : 0);
        }
        text += base64_model_alphabet[value];
    }
    while (text.size() % 4 != 0) {
        text += '=';
    }
    return text;
}

struct base64_decoding {
    bool valid;
    std::string data;

    bool operator==(const base64_decoding&) const = default;
};

/// Decoding rule by rule, into a buffer of `room` bytes.
inline base64_decoding base64_decode_model(std::string_view text, std::size_t room) {
    std::string data;
    const auto is_of_alphabet = [](char c) {
        return base64_model_alphabet.find(c) != std::string_view::npos;
    };
    const auto value = [](char c) {
        return static_cast<unsigned int>(base64_model_alphabet.find(c));
    };
    const auto deliver = [&](unsigned int byte) {
        if (data.size() < room) {
            data += static_cast<char>(byte % 256);
        }
    };

    while (text.size() >= 2) {
        // The first two characters.
        if (!is_of_alphabet(text[0]) || !is_of_alphabet(text[1])) {
            break;
        }
        deliver(value(text[0]) * 4 + value(text[1]) / 16);
        if (text.size() == 2) {
            break;
        }

        // The third.
        if (text[2] == '=') {
            if (text.size() != 4 || text[3] != '=') {
                break;
            }
        } else {
            if (!is_of_alphabet(text[2])) {
                break;
            }
            deliver(value(text[1]) * 16 + value(text[2]) / 4);
            if (text.size() == 3) {
                break;
            }

            // The fourth.
            if (text[3] == '=') {
                if (text.size() != 4) {
                    break;
                }
            } else {
                if (!is_of_alphabet(text[3])) {
                    break;
                }
                deliver(value(text[2]) * 64 + value(text[3]));
            }
        }
        text.remove_prefix(4);
    }
    return {text.empty(), data};
}

} // namespace kiv_test
