#pragma once

#include <cstddef>
#include <string>

namespace kiv_test {

/// What an extraction answers, and what it leaves in its two texts.
struct extraction {
    bool taken;
    std::string token;
    std::string source;

    bool operator==(const extraction&) const = default;
};

/// Token extraction with quotes, step by step and byte by byte, as plainly as it can be said.
inline extraction extract_token_model(const std::string& source, const std::string& token,
                                      const std::string& separator, const std::string& quote,
                                      bool strip_quotes) {
    extraction failure = {false, token, source};
    if (source.empty()) {
        return failure;
    }

    // The work buffer ends at its first zero byte; there is always one.
    const std::string work = source + '\0';
    std::string output;
    bool in_quotes = false;
    std::size_t position = 0;

    while (true) {
        const char c = work[position];

        // The separator outside quotes. The empty separator is the zero byte.
        if (c == separator.c_str()[0] && !in_quotes) {
            if (c != '\0') {
                position = position + 1;
            }
            break;
        }

        // The end of the text.
        if (c == '\0') {
            if (in_quotes) {
                return failure;
            }
            break;
        }

        // A backslash and the byte after it.
        if (c == '\\' && work[position + 1] != '\0') {
            const char next = work[position + 1];
            if (next == 'n') {
                output += '\n';
            } else if (next == 't') {
                output += '\t';
            } else {
                output += next;
            }
            position = position + 2;
            continue;
        }

        // A quote.
        if (c == quote.c_str()[0]) {
            in_quotes = !in_quotes;
            if (!strip_quotes) {
                output += c;
            }
            position = position + 1;
            continue;
        }

        // Any other byte.
        output += c;
        position = position + 1;
    }

    std::string rest;
    while (work[position] != '\0') {
        rest += work[position];
        position = position + 1;
    }
    return {true, output, rest};
}

} // namespace kiv_test
