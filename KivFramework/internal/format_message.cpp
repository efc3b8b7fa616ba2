#include "KivFramework/internal/format_message.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace KivFramework::internal {
namespace {

// A buffer that takes what fits and drops the rest.
class bounded_text {
public:
    bounded_text(char* out, std::size_t size) : start_(out), next_(out), last_(out + size - 1) {}

    void put(std::string_view text) {
        const auto room = static_cast<std::size_t>(last_ - next_);
        const std::size_t count = std::min(text.size(), room);
        std::memcpy(next_, text.data(), count);
        next_ += count;
    }

    template <typename number_type>
    void put_number(number_type number) {
        char digits[24]; // room for any 64-bit number and its sign
        const std::to_chars_result end = std::to_chars(digits, digits + sizeof(digits), number);
        put({digits, static_cast<std::size_t>(end.ptr - digits)});
    }

    std::size_t end() {
        *next_ = '\0';
        return static_cast<std::size_t>(next_ - start_);
    }

private:
    char* start_;
    char* next_;
    char* last_; // kept for the NUL
};

// What the arguments are taken from; a class, because a plain va_list may be an array, which loses
// its type and its place when it is handed on.
class argument_list {
public:
    explicit argument_list(std::va_list arguments) { va_copy(arguments_, arguments); }
    ~argument_list() { va_end(arguments_); }
    argument_list(const argument_list&) = delete;
    argument_list& operator=(const argument_list&) = delete;

    template <typename value_type>
    value_type next() {
        return va_arg(arguments_, value_type);
    }

private:
    std::va_list arguments_;
};

// Writes the conversion whose letters begin at `letters` and returns their number; 0 for one that
// is not plain.
std::size_t put_plain_conversion(bounded_text& text, const char* letters, argument_list& values) {
    switch (letters[0]) {
    case '%':
        text.put("%");
        return 1;
    case 'c': {
        const auto byte = static_cast<char>(values.next<int>());
        text.put({&byte, 1});
        return 1;
    }
    case 'd':
    case 'i':
        text.put_number(values.next<int>());
        return 1;
    case 's': {
        const char* const string = values.next<const char*>();
        text.put(string != nullptr ? string : "(null)"); // as the C library shows it
        return 1;
    }
    case 'u':
        text.put_number(values.next<unsigned int>());
        return 1;
    case 'l':
        if (letters[1] == 'd') {
            text.put_number(values.next<long>());
            return 2;
        }
        if (letters[1] == 'u') {
            text.put_number(values.next<unsigned long>());
            return 2;
        }
        return 0;
    case 'z':
        if (letters[1] == 'u') {
            text.put_number(values.next<std::size_t>());
            return 2;
        }
        return 0;
    default:
        return 0;
    }
}

// Formats into `text` as long as every conversion is plain, and tells whether that was so.
bool format_plainly(bounded_text& text, const char* format, argument_list& values) {
    for (;;) {
        const char* const percent = ::strchrnul(format, '%');
        text.put({format, static_cast<std::size_t>(percent - format)});
        if (*percent == '\0') {
            return true;
        }
        const std::size_t letters = put_plain_conversion(text, percent + 1, values);
        if (letters == 0) {
            return false;
        }
        format = percent + 1 + letters;
    }
}

} // namespace
} // namespace KivFramework::internal

std::size_t KivFramework::internal::format_message(char* out, std::size_t size, const char* format,
                                                   std::va_list arguments) {
    bounded_text text(out, size);
    {
        argument_list values(arguments);
        if (format_plainly(text, format, values)) {
            return text.end();
        }
    }
    *out = '\0';
    const int wanted = std::vsnprintf(out, size, format, arguments);
    return wanted < 0 ? std::strlen(out) : std::min(static_cast<std::size_t>(wanted), size - 1);
}
