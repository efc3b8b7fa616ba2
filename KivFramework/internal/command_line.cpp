#include "KivFramework/internal/command_line.h"

#include <utility>

using namespace KivFramework;

std::vector<std::string> internal::split_command_line(std::string_view text) {
    std::vector<std::string> arguments;
    std::string token;
    bool in_token = false;
    bool in_quotes = false;

    const auto end_argument = [&] {
        arguments.push_back(std::exchange(token, {}));
        in_token = false;
        in_quotes = false;
    };

    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\\' && i + 1 < text.size() && text[i + 1] == '"') {
            // Starts no argument: outside quotes a lone escaped quote waits for the next one.
            token += '"';
            ++i;
        } else if (c == '"') {
            if (in_quotes) {
                end_argument();
            } else {
                in_quotes = true;
            }
        } else if (in_quotes) {
            // Starts no argument either: only the closing quote makes one of it.
            token += c;
        } else if (c != ' ' && c != '\t') {
            token += c;
            in_token = true;
        } else if (in_token) {
            end_argument();
        }
    }
    if (in_token) {
        end_argument();
    }
    return arguments;
}
