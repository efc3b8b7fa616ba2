#include "KivFramework/internal/format_message.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using KivFramework::internal::format_message;

// The bytes written, and the returned length, which counts zero bytes inside as well.
std::string formatted(std::size_t size, const char* format, ...) {
    std::vector<char> out(size, '#');
    std::va_list arguments;
    va_start(arguments, format);
    const std::size_t length = format_message(out.data(), size, format, arguments);
    va_end(arguments);
    EXPECT_LT(length, size);
    EXPECT_EQ(out[length], '\0');
    return {out.data(), length};
}

std::string expected(std::size_t size, const char* format, ...) {
    std::vector<char> out(size, '#');
    std::va_list arguments;
    va_start(arguments, format);
    const int wanted = std::vsnprintf(out.data(), size, format, arguments);
    va_end(arguments);
    EXPECT_GE(wanted, 0);
    const auto length = static_cast<std::size_t>(wanted);
    return {out.data(), length < size ? length : size - 1};
}

// Compares with the C library in a roomy buffer and in every one that is too small.
#define EXPECT_SAME_AS_VSNPRINTF(...)                                                              \
    for (std::size_t size = 1; size <= 100; ++size) {                                              \
        EXPECT_EQ(formatted(size, __VA_ARGS__), expected(size, __VA_ARGS__)) << size;              \
    }

TEST(FormatMessage, PlainTextIsItself) {
    EXPECT_SAME_AS_VSNPRINTF("%s", "");
    EXPECT_SAME_AS_VSNPRINTF("a message without conversions %%");
}

TEST(FormatMessage, EveryPlainConversionReadsAsInTheCLibrary) {
    for (const int number : {0, 1, -1, 9, 10, 99, 100, INT_MAX, INT_MIN}) {
        EXPECT_SAME_AS_VSNPRINTF("<%d|%i|%u>", number, number, static_cast<unsigned int>(number));
    }
    for (const long number : {0L, -1L, LONG_MAX, LONG_MIN}) {
        EXPECT_SAME_AS_VSNPRINTF("<%ld|%lu|%zu>", number, static_cast<unsigned long>(number),
                                 static_cast<std::size_t>(number));
    }
    EXPECT_SAME_AS_VSNPRINTF("%s, %s%s", "one", "", "two");
    EXPECT_SAME_AS_VSNPRINTF("%c%c", 'x', 0xE9);
    EXPECT_SAME_AS_VSNPRINTF("100%% of %s", "it");
}

TEST(FormatMessage, AZeroByteConversionCountsAndDoesNotEndTheText) {
    EXPECT_SAME_AS_VSNPRINTF("a%cb", 0);
}

TEST(FormatMessage, ANullTextReadsAsInTheCLibrary) {
    const char* const null = nullptr;
    EXPECT_EQ(formatted(50, "<%s>", null), "<(null)>");
}

TEST(FormatMessage, OtherConversionsReadAsInTheCLibraryAfterPlainOnesToo) {
    EXPECT_SAME_AS_VSNPRINTF("%d %5d|%-5d|%05d|%+d|% d", 7, 7, 7, 7, 7, 7);
    EXPECT_SAME_AS_VSNPRINTF("%s %.2f %e %g", "x", 2.345, 1e9, 0.1);
    EXPECT_SAME_AS_VSNPRINTF("%u %x %X %#o %p", 1U, 255U, 255U, 8U, "there");
    EXPECT_SAME_AS_VSNPRINTF("%s|%.3s|%*s|%-6s|", "whole", "cut text", 6, "right", "left");
    EXPECT_SAME_AS_VSNPRINTF("%lld %llu %jd %td %hd %hhd %lx", -1LL, 2ULL, std::intmax_t{3},
                             std::ptrdiff_t{4}, 5, 6, 7L);
    EXPECT_SAME_AS_VSNPRINTF("%lx %ld", 255L, 7L);
    EXPECT_SAME_AS_VSNPRINTF("%zx %zu", std::size_t{255}, std::size_t{7});
}

TEST(FormatMessage, ATextThatCannotBeShownEndsBeforeIt) {
    const wchar_t no_character[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
    EXPECT_EQ(formatted(50, "before %ls after", no_character).substr(0, 7), "before ");
}

} // namespace
