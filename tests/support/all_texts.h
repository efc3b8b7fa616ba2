#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kiv_test {

/// Calls `use` with every text of at most `longest` characters out of `alphabet`, the empty one
/// first.
template <typename use_type>
void for_all_texts(std::string_view alphabet, std::size_t longest, use_type use) {
    for (std::size_t length = 0; length <= longest; ++length) {
        std::string digits(length, '\0');
        for (;;) {
            std::string text;
            for (const char digit : digits) {
                text += alphabet[static_cast<std::size_t>(digit)];
            }
            use(static_cast<const std::string&>(text));
            std::size_t place = 0;
            while (place < length && static_cast<std::size_t>(++digits[place]) == alphabet.size()) {
                digits[place++] = '\0';
            }
            if (place == length) {
                break;
            }
        }
    }
}

} // namespace kiv_test
