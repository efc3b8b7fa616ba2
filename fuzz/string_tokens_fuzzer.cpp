// Cuts texts into pieces in every way the library knows. Quoted token extraction is compared with
// its literal model; of the others, the pieces must add up to the text again.
//
// An input is a byte whose lowest bit says whether quotes are stripped, the separators and the
// quote as lines, and the text.

#include "KivFramework/KivStringHelper.h"

#include "tests/oracle/extract_token_model.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace KivFramework::KivStringHelper;

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

void extract_all_tokens(const std::string& text, const std::string& separator,
                        const std::string& quote, bool strip_quotes) {
    kiv_test::extraction state = {true, "unset", text};
    while (state.taken) {
        const kiv_test::extraction expected = kiv_test::extract_token_model(
            state.source, state.token, separator, quote, strip_quotes);
        state.taken =
            ExtractToken(state.source, state.token, separator.c_str(), quote.c_str(), strip_quotes);
        require(state == expected);
    }
}

void extract_all_plain_tokens(std::string text, const std::string& separator) {
    const std::string searched = separator.substr(0, separator.find('\0'));
    std::string token;
    for (std::string before = text; ExtractToken(text, token, separator.c_str()); before = text) {
        require(token.size() == std::min(before.find(searched), before.size()));
        require(before.starts_with(token) && before.ends_with(text));
        const bool whole = token.size() == before.size();
        require(before.size() == token.size() + (whole ? 0 : 1) + text.size());
    }
    require(text.empty());
}

void tokenize(const std::string& text, const std::string& separators) {
    try {
        const std::vector<std::string> pieces = TokenizeString(text, separators);
        const std::set<std::string> expected(pieces.begin(), pieces.end());
        require(TokenizeStringToSet(text, separators) == expected);
        require(TokenizeStringToLongSet(text, separators).size() <= expected.size());
        if (separators.size() == 1) {
            std::string joined;
            for (const std::string& piece : pieces) {
                joined += piece + separators;
            }
            require(joined == text || joined == text + separators);
        }
    } catch (const std::out_of_range&) {
        require(separators.size() > 1);
    }
}

void split_command_line(const std::string& line) {
    std::string program;
    std::string arguments;
    const bool split = SplitCommandLines(line, program, arguments);
    require(split == !(line.empty() || line.front() == ' '));
    require(line.find(program) != std::string::npos && line.ends_with(arguments));
}

void join_lines(const std::string& text) {
    const std::string visible = text.substr(0, text.find('\0'));
    std::string joined = GetLine(text, 1);
    for (int line = 2; joined.size() < visible.size(); ++line) {
        joined += "\n" + GetLine(text, line);
    }
    require(joined == visible);
}

void replace_and_restore(const std::string& text, const std::string& search) {
    require(Replace(text, search, search) == text);
    const std::string without = Replace(text, search, "");
    require(without.size() <= text.size());
    if (search.size() == 1) {
        require(without.find(search) == std::string::npos);
    }
    require(ConformToOS(text) == Replace(text, "\\", "/"));
}

std::string take_line(std::string& rest) {
    std::string line;
    ExtractToken(rest, line, "\n");
    return line;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const bool strip_quotes = (data[0] & 1U) != 0;
    std::string text(data + 1, data + size);
    const std::string separators = take_line(text);
    const std::string quote = take_line(text);

    extract_all_tokens(text, separators, quote, strip_quotes);
    extract_all_plain_tokens(text, separators);
    tokenize(text, separators);
    split_command_line(text);
    join_lines(text);
    replace_and_restore(text, separators);
    return 0;
}
