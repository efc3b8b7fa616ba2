#include "KivFramework/KivStringHelper.h"

#include "KivFramework/internal/ascii_letters.h"
#include "KivFramework/internal/byte_block.h"
#include "KivFramework/internal/byte_escaping.h"
#include "KivFramework/internal/local_clock.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <charconv>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

#include <locale.h> // NOLINT(modernize-deprecated-headers): uselocale is POSIX's

namespace {

namespace internal = KivFramework::internal;

const char* text_or_empty(const char* text) {
    return text == nullptr ? "" : text;
}

bool in_c_locale() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): asks only, as every tolower does
    const char* const global_name = std::setlocale(LC_CTYPE, nullptr);
    return ::uselocale(nullptr) == LC_GLOBAL_LOCALE && std::strcmp(global_name, "C") == 0;
}

// Passes every byte through `fold`, which in most locales changes `letters` alone. In the "C"
// locale it does; whether in another one is known after as many calls as there are bytes.
template <typename function>
void fold_case(std::string& text, const internal::ascii_letters& letters, function fold) {
    constexpr std::size_t byte_count = UCHAR_MAX + 1;
    const auto folds_letters_alone = [&] {
        for (std::size_t byte = 0; byte < byte_count; ++byte) {
            if (fold(static_cast<int>(byte)) != letters.folded(static_cast<unsigned char>(byte))) {
                return false;
            }
        }
        return true;
    };
    if (in_c_locale() || (text.size() > byte_count && folds_letters_alone())) {
        letters.fold(text);
        return;
    }
    for (char& byte : text) {
        byte = static_cast<char>(fold(static_cast<unsigned char>(byte)));
    }
}

// To count short pieces is quicker than to move them whenever their vector grows; not so long ones.
bool begins_with_short_pieces(std::string_view text, char separator) {
    constexpr std::size_t sample = 1024;
    constexpr std::size_t short_length = 32;
    return internal::count_byte(text.substr(0, sample), separator) * short_length >
           std::min(text.size(), sample);
}

// Calls `take` with each piece of `text`, in order, as `TokenizeString` cuts them.
template <typename function>
void for_each_piece(std::string_view text, std::string_view separators, function take) {
    // One separator is the usual case, and looking for one byte is several times faster.
    const auto next_separator = [&](std::size_t from) {
        return separators.size() == 1 ? text.find(separators.front(), from)
                                      : text.find_first_of(separators, from);
    };
    std::size_t start = 0;
    std::size_t separator = 0;
    while ((separator = next_separator(start)) != std::string_view::npos) {
        take(text.substr(start, separator - start));
        // Deliberate: the skip is as long as the set of separators, not as the one byte found.
        start = separator + separators.size();
    }
    // Deliberate: a skip beyond the end makes this substr throw.
    const std::string_view last = text.substr(start);
    if (!last.empty()) {
        take(last);
    }
}

struct url_rules {
    static constexpr internal::byte_forms forms = []() {
        constexpr std::string_view plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                           "0123456789./-_";
        constexpr std::string_view digits = "0123456789ABCDEF";

        internal::byte_forms made;
        for (unsigned int byte = 0; byte < 256; ++byte) {
            if (plain.find(static_cast<char>(byte)) == std::string_view::npos) {
                // Deliberate: a byte from 0x80 on is a negative number, and of its eight digits
                // the first two are kept.
                const unsigned int number = byte < 0x80 ? byte : 0xFF;
                const std::array<char, 3> code = {'%', digits[number / 16], digits[number % 16]};
                made.set(static_cast<char>(byte), {code.data(), code.size()});
            }
        }
        made.set(' ', "+");
        return made;
    }();

    static void find_changed(const internal::byte_block& block, internal::block_places& changed) {
        constexpr unsigned char case_bit = 0x20;
        const auto letters = (block | case_bit) - 'a' <= 'z' - 'a';
        const auto dash_dot_slash_and_digits = block - '-' <= '9' - '-'; // in this order
        changed = ~(letters | dash_dot_slash_and_digits | (block == '_'));
    }

    static void add_growth(const internal::byte_block& block, internal::byte_block& sums) {
        internal::block_places changed;
        find_changed(block, changed);
        sums += internal::byte_block(changed & (block != ' ')) & 2;
    }
};

// What the two bytes after a "%" are worth. Deliberate: of bytes that are no digits, too.
constexpr std::array<unsigned char, 256> digit_values = []() {
    std::array<unsigned char, 256> values{};
    for (unsigned int byte = 0; byte < values.size(); ++byte) {
        constexpr unsigned int case_bit = 0x20;
        const unsigned int value = byte < 'A' ? byte - '0' : (byte & ~case_bit) - 'A' + 10;
        values[byte] = static_cast<unsigned char>(value);
    }
    return values;
}();

char decoded_byte(char high, char low) {
    return static_cast<char>(digit_values[static_cast<unsigned char>(high)] * 16 +
                             digit_values[static_cast<unsigned char>(low)]);
}

using internal::byte_replacement;
using html_entities =
    internal::byte_replacing<byte_replacement{'&', "&amp;"}, byte_replacement{'<', "&lt;"},
                             byte_replacement{'>', "&gt;"}>;
using sql_quotes = internal::byte_replacing<byte_replacement{'\'', "''"}>;

std::string range_text(long first, long last) {
    return first == last ? std::to_string(first)
                         : std::to_string(first) + "-" + std::to_string(last);
}

} // namespace

std::string KivFramework::KivStringHelper::FromInt(int value) {
    return std::to_string(value);
}

std::string KivFramework::KivStringHelper::FromLong(long value) {
    return std::to_string(value);
}

std::string KivFramework::KivStringHelper::FromTime(long seconds) {
    return FromLong(seconds);
}

std::string KivFramework::KivStringHelper::FromInt64(long long value) {
    return std::to_string(value);
}

std::string KivFramework::KivStringHelper::FromSizet(unsigned long value) {
    return std::to_string(value);
}

std::string KivFramework::KivStringHelper::FromBool(bool value) {
    return value ? "1" : "0";
}

std::string KivFramework::KivStringHelper::FromDouble(double value, int precision) {
    constexpr int default_precision = 6;
    // No double has more digits than this: all further ones are zeros.
    constexpr int max_integer_digits = 309;
    constexpr int max_fraction_digits = 1074;

    if (precision < 0) {
        precision = default_precision;
    }
    // Neither a stream nor printf: both take the decimal point from a locale.
    std::array<char, std::size_t{1} + max_integer_digits + 1 + max_fraction_digits> digits;
    const int exact_digits = std::min(precision, max_fraction_digits);
    const std::to_chars_result end = std::to_chars(digits.data(), digits.data() + digits.size(),
                                                   value, std::chars_format::fixed, exact_digits);
    std::string text(digits.data(), end.ptr);
    if (std::isfinite(value)) {
        text.append(static_cast<std::size_t>(precision - exact_digits), '0');
    }
    return text;
}

std::string KivFramework::KivStringHelper::FromFloat(float value, int precision) {
    return FromDouble(static_cast<double>(value), precision);
}

bool KivFramework::KivStringHelper::ToBool(std::string text) {
    // Deliberate: everything but the canonical false is true.
    return text != "0";
}

void KivFramework::KivStringHelper::TrimLeft(std::string& text) {
    text.erase(0, text.find_first_not_of(' '));
}

void KivFramework::KivStringHelper::TrimRight(std::string& text) {
    // A text of spaces only finds npos, which becomes 0 here.
    text.erase(text.find_last_not_of(' ') + 1);
}

void KivFramework::KivStringHelper::TrimCR(std::string& text) {
    // Deliberate: anywhere in the text, and tabs too.
    std::erase_if(text, [](char byte) { return byte == '\n' || byte == '\r' || byte == '\t'; });
}

std::string KivFramework::KivStringHelper::ToLower(std::string text) {
    fold_case(text, internal::ascii_letters('A'), [](int byte) { return std::tolower(byte); });
    return text;
}

std::string KivFramework::KivStringHelper::ToUpper(std::string text) {
    fold_case(text, internal::ascii_letters('a'), [](int byte) { return std::toupper(byte); });
    return text;
}

bool KivFramework::KivStringHelper::ExtractToken(std::string& source, std::string& token,
                                                 const char* separator, const char* quote,
                                                 bool strip_quotes) {
    if (source.empty()) {
        return false;
    }
    const char separator_byte = *text_or_empty(separator);
    const char quote_byte = *text_or_empty(quote);

    std::string taken;
    bool in_quotes = false;
    // The terminator of `source` is a zero byte too, so no step needs to look at its length.
    const char* position = source.c_str();
    while (*position != '\0') {
        const char byte = *position;
        if (byte == separator_byte && !in_quotes) {
            break;
        }
        ++position;
        if (byte == '\\' && *position != '\0') {
            const char escaped = *position++;
            taken += escaped == 'n' ? '\n' : escaped == 't' ? '\t' : escaped;
            continue;
        }
        // Deliberate: a backslash comes this far only as the last byte, so as a quote it stays
        // open.
        if (byte == quote_byte) {
            in_quotes = !in_quotes;
            if (strip_quotes) {
                continue;
            }
        }
        taken += byte;
    }
    if (in_quotes) {
        return false;
    }
    if (*position != '\0') {
        ++position; // past the separator
    }
    const auto consumed = static_cast<std::size_t>(position - source.c_str());
    source.resize(std::strlen(source.c_str())); // a zero byte ends the text
    source.erase(0, consumed);
    token = std::move(taken);
    return true;
}

bool KivFramework::KivStringHelper::ExtractToken(std::string& source, std::string& token,
                                                 const char* separator) {
    if (source.empty()) {
        return false;
    }
    const std::size_t end = source.find(text_or_empty(separator));
    token.assign(source, 0, end);
    if (end == std::string::npos) {
        source.clear();
        return true;
    }
    // Deliberate: one byte, whatever the separator's length.
    source.erase(0, end + 1);
    return true;
}

std::vector<std::string> KivFramework::KivStringHelper::TokenizeString(std::string text,
                                                                       std::string separators) {
    std::vector<std::string> pieces;
    if (separators.size() == 1 && begins_with_short_pieces(text, separators.front())) {
        pieces.reserve(internal::count_byte(text, separators.front()) + 1);
    }
    for_each_piece(text, separators,
                   [&pieces](std::string_view piece) { pieces.emplace_back(piece); });
    return pieces;
}

std::set<std::string> KivFramework::KivStringHelper::TokenizeStringToSet(std::string text,
                                                                         std::string separators) {
    std::set<std::string> pieces;
    for_each_piece(text, separators,
                   [&pieces](std::string_view piece) { pieces.insert(std::string(piece)); });
    return pieces;
}

std::set<long> KivFramework::KivStringHelper::TokenizeStringToLongSet(std::string text,
                                                                      std::string separators) {
    constexpr int decimal = 10;

    std::set<long> numbers;
    std::string digits; // with a terminator: a separator may itself be a digit
    for_each_piece(text, separators, [&](std::string_view piece) {
        if (!piece.empty()) {
            digits = piece;
            // strtol is atol with a defined result for what no long can hold.
            numbers.insert(std::strtol(digits.c_str(), nullptr, decimal));
        }
    });
    return numbers;
}

bool KivFramework::KivStringHelper::SplitCommandLines(std::string command_line,
                                                      std::string& program,
                                                      std::string& arguments) {
    const std::size_t length = command_line.size();
    bool quoted = false;
    std::size_t end = 0;
    for (; end < length; ++end) {
        const char byte = command_line[end];
        if (byte == (quoted ? '"' : ' ')) {
            break;
        }
        quoted = quoted || byte == '"';
    }
    if (end == 0) {
        return false;
    }
    // Deliberate: any quote makes the first byte the opening one, and arguments that are not there
    // are not assigned.
    program = quoted ? command_line.substr(1, end - 1) : command_line.substr(0, end);
    const std::size_t arguments_start = end + (quoted ? 2 : 1);
    if (arguments_start < length) {
        arguments = command_line.substr(arguments_start);
    }
    return true;
}

std::string KivFramework::KivStringHelper::GetLine(const char* text, int line_number) {
    if (line_number < 1) {
        return {};
    }
    const char* start = text_or_empty(text);
    const char* end = std::strchr(start, '\n');
    for (int line = 1; line < line_number; ++line) {
        if (end == nullptr) {
            return {};
        }
        start = end + 1;
        end = std::strchr(start, '\n');
    }
    return end == nullptr ? std::string(start) : std::string(start, end);
}

std::string KivFramework::KivStringHelper::GetLine(std::string text, int line_number) {
    return GetLine(text.c_str(), line_number);
}

std::string KivFramework::KivStringHelper::Replace(std::string text, std::string search,
                                                   std::string replacement) {
    if (search.empty()) {
        return text;
    }
    std::size_t found = text.find(search);
    if (found == std::string::npos) {
        return text;
    }
    std::string replaced;
    replaced.reserve(text.size());
    std::size_t copied = 0;
    for (; found != std::string::npos; found = text.find(search, copied)) {
        replaced.append(text, copied, found - copied);
        replaced.append(replacement);
        copied = found + search.size();
    }
    replaced.append(text, copied);
    return replaced;
}

std::string KivFramework::KivStringHelper::ConformToOS(std::string path) {
    std::replace(path.begin(), path.end(), '\\', '/');
    return path;
}

std::string KivFramework::KivStringHelper::LongSetToPrintableRanges(std::set<long>* numbers) {
    if (numbers == nullptr || numbers->empty()) {
        return {};
    }
    std::string ranges;
    long first = *numbers->begin();
    long last = first;
    for (auto number = std::next(numbers->begin()); number != numbers->end(); ++number) {
        // The set ascends, so a number with one before it is not the smallest long.
        if (*number - 1 != last) {
            ranges += range_text(first, last) + ",";
            first = *number;
        }
        last = *number;
    }
    return ranges + range_text(first, last);
}

std::string KivFramework::KivStringHelper::EncodeURL(std::string text) {
    text.resize(std::strlen(text.c_str())); // a zero byte ends the text
    if (internal::stands_for_itself<url_rules>(text)) {
        return text;
    }
    return internal::escape_bytes<url_rules>(text);
}

std::string KivFramework::KivStringHelper::DecodeURL(std::string text) {
    constexpr std::ptrdiff_t block_size = sizeof(internal::byte_block);
    constexpr std::ptrdiff_t code_size = 3;

    text.resize(std::strlen(text.c_str())); // a zero byte ends the text
    if (text.find('%') == std::string::npos) {
        return text;
    }
    std::string decoded(text.size(), '\0');
    const char* in = text.data();
    const char* const end = in + text.size();
    char* out = decoded.data(); // has room for all that is left of the text
    while (end - in >= block_size) {
        internal::byte_block block;
        internal::load_block(in, block);
        internal::store_block(block, out);
        const unsigned int codes = internal::place_bits(block == '%');
        if (codes == 0) {
            in += block_size;
            out += block_size;
            continue;
        }
        in += std::countr_zero(codes);
        out += std::countr_zero(codes);
        while (*in == '%' && end - in >= code_size) {
            *out++ = decoded_byte(in[1], in[2]);
            in += code_size;
        }
    }
    while (in != end) {
        if (*in != '%') {
            *out++ = *in++;
            continue;
        }
        // The terminator is a digit, and again in the place of what is beyond it.
        *out++ = decoded_byte(in[1], end - in > 1 ? in[2] : '\0');
        in += std::min(end - in, code_size);
    }
    decoded.resize(static_cast<std::size_t>(out - decoded.data()));
    return decoded;
}

std::string KivFramework::KivStringHelper::EncodeHTML(std::string text) {
    return html_entities::replace(std::move(text));
}

std::string KivFramework::KivStringHelper::EncodeSQL(std::string text) {
    return sql_quotes::replace(std::move(text));
}

std::string KivFramework::KivStringHelper::FormatTime(long seconds, int mode) {
    const std::optional<std::tm> time = internal::local_time(seconds);
    if (!time) {
        return {};
    }
    const int month = time->tm_mon + 1;
    const long long year = time->tm_year + 1900LL;
    std::array<char, 80> text; // room for six numbers of any size
    switch (mode) {
    case 0:
        std::snprintf(text.data(), text.size(), "%02d:%02d:%02d", time->tm_hour, time->tm_min,
                      time->tm_sec);
        break;
    case 1:
        std::snprintf(text.data(), text.size(), "%02d/%02d/%04lld", month, time->tm_mday, year);
        break;
    case 3:
        std::snprintf(text.data(), text.size(), "%02d%02d%04lld%02d%02d%02d", month, time->tm_mday,
                      year, time->tm_hour, time->tm_min, time->tm_sec);
        break;
    default:
        std::snprintf(text.data(), text.size(), "%02d/%02d/%04lld %02d:%02d:%02d", month,
                      time->tm_mday, year, time->tm_hour, time->tm_min, time->tm_sec);
        break;
    }
    return text.data();
}

std::string KivFramework::KivStringHelper::FormatTimespan(long seconds) {
    constexpr long minute = 60;
    constexpr long hour = 60 * minute;
    constexpr long day = 24 * hour;

    if (seconds < 0) {
        return {};
    }
    // Deliberate: days, too, are an unsigned number of 32 bits.
    return std::to_string(static_cast<unsigned int>(seconds / day)) + " days, " +
           std::to_string(seconds % day / hour) + " hours, " +
           std::to_string(seconds % hour / minute) + " mins, " + std::to_string(seconds % minute) +
           " secs";
}
