/// \file
/// Small questions to texts that both programs ask.
#pragma once

#include <charconv>
#include <string>
#include <system_error>

namespace agent {

/// Reads a whole text as a decimal number.
///
/// \param[out] number  written only on success.
/// \returns false when the text is anything else, or the number is out of range.
inline bool parse_number(const std::string& text, int lowest, int highest, int& number) {
    int parsed = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, parsed);
    if (error != std::errc() || stop != end || parsed < lowest || parsed > highest) {
        return false;
    }
    number = parsed;
    return true;
}

/// The system's words for an error number.
inline std::string error_text(int error) {
    return std::generic_category().message(error);
}

} // namespace agent
