#pragma once

#include <string>
#include <vector>

namespace kiv_test {

/// The rules of command-line splitting, told one after the other for each character, with the
/// fixed scratch space that they are told with: good for at most 255 arguments of 8115 bytes.
inline std::vector<std::string> split_command_line_model(const char* text) {
    char token[8116];
    std::size_t length = 0;
    bool in_token = false;
    bool in_quotes = false;
    std::vector<std::string> arguments;
    for (;;) {
        if (*text == '\0') {
            if (in_token) {
                token[length] = '\0';
                arguments.emplace_back(token);
            }
            return arguments;
        }
        if ((*text == ' ' || *text == '\t') && !in_quotes) {
            if (in_token) {
                token[length] = '\0';
                arguments.emplace_back(token);
                length = 0;
            }
            in_token = false;
            in_quotes = false;
            ++text;
            continue;
        }
        if (text[0] == '\\' && text[1] == '"') {
            token[length++] = '"';
            text += 2;
            continue;
        }
        if (*text == '"') {
            if (in_quotes) {
                token[length] = '\0';
                arguments.emplace_back(token);
                length = 0;
                in_token = false;
                in_quotes = false;
            } else {
                in_quotes = true;
            }
            ++text;
            continue;
        }
        if (!in_quotes) {
            in_token = true;
        }
        token[length++] = *text++;
    }
}

} // namespace kiv_test
