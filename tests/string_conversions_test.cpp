#include "KivFramework/KivStringHelper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <locale>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace KivFramework::KivStringHelper;

// Groups digits and writes a decimal comma, as many national locales do.
class grouping_punctuation : public std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

// Makes a locale with that punctuation the global one until the end of the scope.
class grouping_locale {
public:
    grouping_locale()
        : previous_(std::locale::global(std::locale(std::locale(), new grouping_punctuation))) {}
    ~grouping_locale() { std::locale::global(previous_); }
    grouping_locale(const grouping_locale&) = delete;
    grouping_locale& operator=(const grouping_locale&) = delete;

private:
    std::locale previous_;
};

std::string printed(double value, int precision) {
    std::vector<char> buffer(2048);
    std::snprintf(buffer.data(), buffer.size(), "%.*f", precision, value);
    std::string text = buffer.data();
    std::replace(text.begin(), text.end(), ',', '.'); // whatever the locale has
    return text;
}

TEST(FromInt, WritesPlainDecimal) {
    EXPECT_EQ(FromInt(0), "0");
    EXPECT_EQ(FromInt(7), "7");
    EXPECT_EQ(FromInt(-1234567), "-1234567");
    EXPECT_EQ(FromInt(INT_MAX), "2147483647");
    EXPECT_EQ(FromInt(INT_MIN), "-2147483648");
}

TEST(FromLong, WritesPlainDecimal) {
    EXPECT_EQ(FromLong(0), "0");
    EXPECT_EQ(FromLong(LONG_MAX), std::to_string(LONG_MAX));
    EXPECT_EQ(FromLong(LONG_MIN), std::to_string(LONG_MIN));
}

TEST(FromTime, WritesTheBareSeconds) {
    EXPECT_EQ(FromTime(0), "0");
    EXPECT_EQ(FromTime(1234567890), "1234567890");
    EXPECT_EQ(FromTime(-1), "-1");
}

TEST(FromInt64, WritesPlainDecimal) {
    EXPECT_EQ(FromInt64(0), "0");
    EXPECT_EQ(FromInt64(LLONG_MAX), "9223372036854775807");
    EXPECT_EQ(FromInt64(LLONG_MIN), "-9223372036854775808");
}

TEST(FromSizet, WritesUnsignedDecimal) {
    EXPECT_EQ(FromSizet(0), "0");
    EXPECT_EQ(FromSizet(4294967295), "4294967295");
    EXPECT_EQ(FromSizet(SIZE_MAX), std::to_string(SIZE_MAX));
}

TEST(FromBool, WritesOneAndZero) {
    EXPECT_EQ(FromBool(true), "1");
    EXPECT_EQ(FromBool(false), "0");
}

TEST(FromDouble, WritesFixedPointWithExactlyThePrecisionsDigits) {
    EXPECT_EQ(FromDouble(1.0, 3), "1.000");
    EXPECT_EQ(FromDouble(-0.5, 1), "-0.5");
    EXPECT_EQ(FromDouble(3.14159, 2), "3.14");
    EXPECT_EQ(FromDouble(0.0, 4), "0.0000");
    EXPECT_EQ(FromDouble(-0.0, 1), "-0.0");
    EXPECT_EQ(FromDouble(1e-9, 3), "0.000");
}

TEST(FromDouble, RoundsTheExactValueHalfWayCasesToEven) {
    EXPECT_EQ(FromDouble(0.5, 0), "0");
    EXPECT_EQ(FromDouble(1.5, 0), "2");
    EXPECT_EQ(FromDouble(2.5, 0), "2");
    EXPECT_EQ(FromDouble(0.125, 2), "0.12");
    EXPECT_EQ(FromDouble(0.375, 2), "0.38");
    EXPECT_EQ(FromDouble(1.005, 2), "1.00"); // the double is a little below 1.005
    EXPECT_EQ(FromDouble(9.995, 2), "9.99");
    EXPECT_EQ(FromDouble(99.5, 0), "100");
}

TEST(FromDouble, WritesNoPointWithPrecisionZero) {
    EXPECT_EQ(FromDouble(12.0, 0), "12");
    EXPECT_EQ(FromDouble(-12.0, 0), "-12");
}

TEST(FromDouble, NeverUsesAnExponent) {
    EXPECT_EQ(FromDouble(1e20, 2), "100000000000000000000.00");
    EXPECT_EQ(FromDouble(std::numeric_limits<double>::max(), 0).size(), 309U);
    EXPECT_EQ(FromDouble(std::numeric_limits<double>::max(), 1074),
              printed(1.7976931348623157e308, 1074));
    EXPECT_EQ(FromDouble(-std::numeric_limits<double>::max(), 1074),
              printed(-1.7976931348623157e308, 1074));
}

TEST(FromDouble, CountsANegativePrecisionAsSixAsStreamsDo) {
    std::ostringstream stream;
    stream.setf(std::ios::fixed);
    stream.precision(-1);
    stream << 1.0 / 3;
    EXPECT_EQ(FromDouble(1.0 / 3, -1), stream.str());
    EXPECT_EQ(FromDouble(1.0 / 3, -1), "0.333333");
    EXPECT_EQ(FromDouble(2.0, INT_MIN), "2.000000");
}

TEST(FromDouble, FillsAHugePrecisionWithZeros) {
    const double smallest = std::numeric_limits<double>::denorm_min();
    const std::string all_digits = FromDouble(smallest, 1074);
    EXPECT_EQ(all_digits, printed(smallest, 1074));
    EXPECT_EQ(all_digits.back(), '5'); // nothing of the value is left for a further digit
    EXPECT_EQ(FromDouble(smallest, 1075), all_digits + "0");
    EXPECT_EQ(FromDouble(-0.25, 1000000), "-0.25" + std::string(999998, '0'));
}

TEST(FromDouble, WritesWhatIsNoNumberInWords) {
    const double infinity = std::numeric_limits<double>::infinity();
    const double not_a_number = std::numeric_limits<double>::quiet_NaN();
    for (const int precision : {-1, 0, 3, 5000}) {
        SCOPED_TRACE(precision);
        EXPECT_EQ(FromDouble(infinity, precision), "inf");
        EXPECT_EQ(FromDouble(-infinity, precision), "-inf");
        EXPECT_EQ(FromDouble(not_a_number, precision), "nan");
        EXPECT_EQ(FromDouble(std::copysign(not_a_number, -1.0), precision), "-nan");
    }
}

TEST(FromDouble, EqualsPrintedFixedPointOnAllKindsOfValues) {
    std::mt19937_64 random(1); // NOLINT(cert-msc51-cpp): the same values in every run
    for (int round = 0; round < 20000; ++round) {
        const std::uint64_t bits = random();
        auto value = std::bit_cast<double>(bits);
        if (!std::isfinite(value)) {
            continue;
        }
        if (round % 2 == 0) {
            value = std::ldexp(std::round(std::fmod(value, 1e6)), -static_cast<int>(bits % 8));
        }
        const int precision = static_cast<int>(random() % 20);
        ASSERT_EQ(FromDouble(value, precision), printed(value, precision));
    }
}

TEST(FromFloat, WritesTheWidenedDouble) {
    EXPECT_EQ(FromFloat(0.1F, 10), "0.1000000015");
    EXPECT_EQ(FromFloat(0.1F, 8), "0.10000000");
    EXPECT_EQ(FromFloat(-2.5F, 0), "-2");
}

TEST(NumbersToText, DoNotChangeWithTheGlobalCppLocale) {
    const grouping_locale national;
    std::ostringstream stream;
    stream << 1234567;
    ASSERT_EQ(stream.str(), "1.234.567"); // the locale is at work

    EXPECT_EQ(FromInt(1234567), "1234567");
    EXPECT_EQ(FromLong(-1234567), "-1234567");
    EXPECT_EQ(FromTime(1234567890), "1234567890");
    EXPECT_EQ(FromInt64(1234567), "1234567");
    EXPECT_EQ(FromSizet(1234567), "1234567");
    EXPECT_EQ(FromDouble(1234567.5, 2), "1234567.50");
    EXPECT_EQ(FromFloat(1234.5F, 1), "1234.5");
    EXPECT_EQ(FromDouble(1234567.5, 2000), "1234567.5" + std::string(1999, '0'));
}

TEST(ToBool, IsFalseOnlyForTheTextZero) {
    EXPECT_FALSE(ToBool("0"));
    EXPECT_FALSE(ToBool(FromBool(false)));
    for (const char* text : {"1", "", " 0", "0 ", "00", "-0", "false", "no", "0.0"}) {
        SCOPED_TRACE(text);
        EXPECT_TRUE(ToBool(text));
    }
    EXPECT_TRUE(ToBool(std::string("0\0", 2)));
}

std::string trimmed_left(std::string text) {
    TrimLeft(text);
    return text;
}

std::string trimmed_right(std::string text) {
    TrimRight(text);
    return text;
}

std::string without_cr(std::string text) {
    TrimCR(text);
    return text;
}

TEST(TrimLeft, RemovesLeadingSpacesOnly) {
    EXPECT_EQ(trimmed_left("  a b "), "a b ");
    EXPECT_EQ(trimmed_left("a"), "a");
    EXPECT_EQ(trimmed_left("\t a"), "\t a");
    EXPECT_EQ(trimmed_left(" \n a"), "\n a");
    EXPECT_EQ(trimmed_left("\xA0 a"), "\xA0 a");
    EXPECT_EQ(trimmed_left(std::string(" \0 a", 4)), std::string("\0 a", 3));
}

TEST(TrimLeft, EmptiesATextOfSpaces) {
    EXPECT_EQ(trimmed_left("   "), "");
    EXPECT_EQ(trimmed_left(""), "");
}

TEST(TrimRight, RemovesTrailingSpacesOnly) {
    EXPECT_EQ(trimmed_right(" a b  "), " a b");
    EXPECT_EQ(trimmed_right("a"), "a");
    EXPECT_EQ(trimmed_right("a \t"), "a \t");
    EXPECT_EQ(trimmed_right("a\r\n"), "a\r\n");
    EXPECT_EQ(trimmed_right("a \xA0"), "a \xA0");
    EXPECT_EQ(trimmed_right(std::string("a\0 ", 3)), std::string("a\0", 2));
}

TEST(TrimRight, EmptiesATextOfSpaces) {
    EXPECT_EQ(trimmed_right("   "), "");
    EXPECT_EQ(trimmed_right(""), "");
}

TEST(TrimCR, RemovesLineFeedsCarriageReturnsAndTabsEverywhere) {
    EXPECT_EQ(without_cr("a\tb\r\n"), "ab");
    EXPECT_EQ(without_cr("\n\r\t"), "");
    EXPECT_EQ(without_cr("\ta\n\nb\rc d\v\f"), "abc d\v\f");
    EXPECT_EQ(without_cr(std::string("\n\0\r", 3)), std::string("\0", 1));
    EXPECT_EQ(without_cr(""), "");
}

TEST(TrimCR, TakesMillionsOfLineEndsInOnePass) {
    std::string text;
    for (int line = 0; line < 1000000; ++line) {
        text += "x\r\n\t";
    }
    EXPECT_EQ(without_cr(text), std::string(1000000, 'x'));
}

TEST(ToUpper, ChangesOnlyAsciiLettersInTheCLocale) {
    EXPECT_EQ(ToUpper("straße"), "STRAßE");
    EXPECT_EQ(ToUpper("aZ09_ \t{"), "AZ09_ \t{");
}

TEST(ToLower, ChangesOnlyAsciiLettersInTheCLocale) {
    EXPECT_EQ(ToLower("STRAßE"), "straße");
    EXPECT_EQ(ToLower("Az09_ \tÄ@["), "az09_ \tÄ@[");
}

TEST(CaseFolding, PassesEveryByteThroughTheCLibrary) {
    std::string every_byte;
    std::string lower;
    std::string upper;
    for (int byte = 0; byte <= UCHAR_MAX; ++byte) {
        every_byte += static_cast<char>(byte);
        lower += static_cast<char>(std::tolower(byte));
        upper += static_cast<char>(std::toupper(byte));
    }
    EXPECT_EQ(ToLower(every_byte), lower);
    EXPECT_EQ(ToUpper(every_byte), upper);
}

} // namespace
