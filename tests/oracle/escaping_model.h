#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

namespace kiv_test {

/// The encoding for URLs, byte by byte, as plainly as it can be said.
inline std::string encode_url_model(const std::string& text) {
    std::string output;
    for (const char c : text) {
        if (c == '\0') {
            break;
        }
        const bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        const bool digit = c >= '0' && c <= '9';
        if (letter || digit || c == '.' || c == '/' || c == '-' || c == '_') {
            output += c;
        } else if (c == ' ') {
            output += '+';
        } else {
            const auto signed_byte = static_cast<signed char>(c);
            // Widened with its sign, so that a byte from 0x80 on has eight digits.
            const int number = signed_byte; // NOLINT(bugprone-signed-char-misuse): meant so
            char buffer[16] = "";
            std::snprintf(buffer, sizeof(buffer), "%%%02X", static_cast<unsigned int>(number));
            output += std::string(buffer).substr(0, 3);
        }
    }
    return output;
}

/// The decoding of URLs, byte by byte, as plainly as it can be said.
inline std::string decode_url_model(const std::string& text) {
    const auto value_of = [](int digit) {
        if (digit < 'A') {
            return digit - '0';
        }
        if ((digit & 0x20) != 0) {
            digit = digit - 0x20;
        }
        return digit - 55;
    };

    // The text ends at its first zero byte; beyond it there are zero bytes only.
    std::string input;
    for (const char c : text) {
        if (c == '\0') {
            break;
        }
        input += c;
    }
    const std::size_t length = input.size();
    input += '\0';
    input += '\0';

    std::string output;
    std::size_t position = 0;
    while (position < length) {
        if (input[position] == '%') {
            const int high = value_of(static_cast<unsigned char>(input[position + 1]));
            const int low = value_of(static_cast<unsigned char>(input[position + 2]));
            const int number = high * 16 + low;
            output += static_cast<char>(number & 0xFF);
            position = position + 3;
        } else {
            output += input[position];
            position = position + 1;
        }
    }
    return output;
}

/// Every `search` replaced, from left to right.
inline std::string replace_model(const std::string& text, char search,
                                 const std::string& replacement) {
    std::string output;
    for (const char c : text) {
        if (c == search) {
            output += replacement;
        } else {
            output += c;
        }
    }
    return output;
}

/// The escaping for HTML: three replacements, one after the other.
inline std::string encode_html_model(const std::string& text) {
    const std::string without_ampersands = replace_model(text, '&', "&amp;");
    const std::string without_less = replace_model(without_ampersands, '<', "&lt;");
    return replace_model(without_less, '>', "&gt;");
}

/// The escaping for SQL literals.
inline std::string encode_sql_model(const std::string& text) {
    return replace_model(text, '\'', "''");
}

} // namespace kiv_test
