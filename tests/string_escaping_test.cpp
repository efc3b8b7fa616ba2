#include "KivFramework/KivStringHelper.h"

#include "tests/oracle/escaping_model.h"
#include "tests/support/all_texts.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <random>
#include <string>
#include <string_view>

namespace {

using namespace KivFramework::KivStringHelper;
using namespace std::string_literals;
using namespace std::string_view_literals;

using text_function = std::string (*)(std::string);
using text_model = std::string (*)(const std::string&);

void expect_the_model_on_every_byte(text_function encode, text_model expected) {
    for (int byte = 0; byte <= UCHAR_MAX; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        for (const std::string& given : {text, "x" + text, text + "x", text + text}) {
            ASSERT_EQ(encode(given), expected(given)) << "byte " << byte;
        }
    }
}

void expect_the_model_on_short_texts(std::string_view alphabet, std::size_t longest,
                                     text_function encode, text_model expected) {
    kiv_test::for_all_texts(alphabet, longest, [&](const std::string& text) {
        ASSERT_EQ(encode(text), expected(text)) << "text [" << text << "]";
    });
}

// Texts of many lengths, some of them far beyond what is looked at in one step, from all letters to
// all `special` bytes.
void expect_the_model_on_long_texts(std::string_view special, text_function encode,
                                    text_model expected) {
    std::mt19937 random(11); // NOLINT(cert-msc51-cpp): the same texts in every run
    for (std::size_t length = 0; length <= 5000; length = length < 150 ? length + 1 : length * 3) {
        for (const unsigned int percent : {0U, 2U, 10U, 50U, 100U}) {
            std::string text;
            while (text.size() < length) {
                text += random() % 100 < percent ? special[random() % special.size()]
                                                 : static_cast<char>('a' + random() % 26);
            }
            ASSERT_EQ(encode(text), expected(text)) << "text [" << text << "]";
        }
    }
}

TEST(EncodeURL, CopiesLettersDigitsDotSlashDashAndUnderscore) {
    const std::string unchanged =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789./-_";
    EXPECT_EQ(EncodeURL(unchanged), unchanged);
    EXPECT_EQ(EncodeURL("a.b-c_d"), "a.b-c_d");
}

TEST(EncodeURL, TurnsASpaceIntoAPlusAndAPlusIntoItsDigits) {
    EXPECT_EQ(EncodeURL("a b+c"), "a+b%2Bc");
    EXPECT_EQ(EncodeURL("  "), "++");
}

TEST(EncodeURL, WritesEveryOtherByteAsTwoUpperCaseDigits) {
    EXPECT_EQ(EncodeURL("~"), "%7E");
    EXPECT_EQ(EncodeURL("\x01\t\n\x1F\x7F"), "%01%09%0A%1F%7F");
    EXPECT_EQ(EncodeURL("!\"#$%&'()*,:;<=>?@[\\]^`{|}"),
              "%21%22%23%24%25%26%27%28%29%2A%2C%3A%3B%3C%3D%3E%3F%40%5B%5C%5D%5E%60%7B%7C%7D");
}

TEST(EncodeURL, LosesEveryByteFrom80OnAsFF) {
    EXPECT_EQ(EncodeURL("a b+c/\xC3\xA9"), "a+b%2Bc/%FF%FF");
    for (int byte = 0x80; byte <= 0xFF; ++byte) {
        EXPECT_EQ(EncodeURL(std::string(1, static_cast<char>(byte))), "%FF") << byte;
    }
}

TEST(EncodeURL, EndsTheTextAtItsFirstZeroByte) {
    EXPECT_EQ(EncodeURL("a \0b"s), "a+");
    EXPECT_EQ(EncodeURL("\0b"s), "");
    EXPECT_EQ(EncodeURL(""), "");
}

TEST(EncodeURL, EqualsTheModelOnEveryByteAndManyTexts) {
    expect_the_model_on_every_byte(EncodeURL, kiv_test::encode_url_model);
    expect_the_model_on_short_texts("a/ +~\xE9\0"sv, 5, EncodeURL, kiv_test::encode_url_model);
    expect_the_model_on_long_texts(" ./+%~\x80\xFF\n", EncodeURL, kiv_test::encode_url_model);
}

TEST(DecodeURL, ReadsTwoDigitsInEitherCaseAfterAPercentSign) {
    EXPECT_EQ(DecodeURL("%41%61"), "Aa");
    EXPECT_EQ(DecodeURL("%2f%2F%aB%Ff"), "//\xAB\xFF");
    EXPECT_EQ(DecodeURL("x%25y%2541"), "x%y%41");
}

TEST(DecodeURL, CopiesEveryOtherByteThePlusIncluded) {
    EXPECT_EQ(DecodeURL("a%2fb+c"), "a/b+c");
    EXPECT_EQ(DecodeURL("+ \t&=\x80\xFF"), "+ \t&=\x80\xFF");
}

TEST(DecodeURL, DoesNotTurnThePlusOfAnEncodedSpaceBack) {
    EXPECT_EQ(DecodeURL(EncodeURL("a b+c")), "a+b+c");
}

TEST(DecodeURL, GivesOneZeroByteForTwoZeroDigits) {
    EXPECT_EQ(DecodeURL("a%00b"), "a\0b"s);
    EXPECT_EQ(DecodeURL("%00"), "\0"s);
}

TEST(DecodeURL, CountsAForeignDigitByTheFormulaKeptToOneByte) {
    EXPECT_EQ(DecodeURL("%zz"), "S");         // 35 * 16 + 35 = 595 = 2 * 256 + 83
    EXPECT_EQ(DecodeURL("%Zz"), "S");         // letters count the same in either case
    EXPECT_EQ(DecodeURL("%:0"), "\xA0");      // ":" follows "9": 10
    EXPECT_EQ(DecodeURL("%0@"), "\x10");      // "@" is below "A", its distance from "0" is 16
    EXPECT_EQ(DecodeURL("%@0"), "\0"s);       // 16 * 16
    EXPECT_EQ(DecodeURL("%0`"), "\x09");      // "`" folds to "@": 64 - 55
    EXPECT_EQ(DecodeURL("%0/"), "\xFF");      // "/" is one below "0": -1
    EXPECT_EQ(DecodeURL("% 4"), "\x04");      // -16 * 16 + 4
    EXPECT_EQ(DecodeURL("%0\xE9"), "\x92");   // 0xE9 folds to 0xC9: 201 - 55
    EXPECT_EQ(DecodeURL("%%41"), "\x54\x31"); // -11 * 16 + 4 = 84 - 256
}

TEST(DecodeURL, TakesADigitBeyondTheEndForAZeroByte) {
    EXPECT_EQ(DecodeURL("%4"), "\x10");  // 4 * 16 - 48
    EXPECT_EQ(DecodeURL("a%"), "a\xD0"); // -48 * 16 - 48 = 208 - 4 * 256
    EXPECT_EQ(DecodeURL("%%"), "\x20");  // -11 * 16 - 48 = 32 - 256
}

TEST(DecodeURL, ReadsNothingBeyondTheEndOfALongText) {
    for (std::size_t length = 0; length < 70; ++length) {
        const std::string plain(length, 'x');
        EXPECT_EQ(DecodeURL("%41" + plain), "A" + plain);
        EXPECT_EQ(DecodeURL(plain + "%41"), plain + "A");
        EXPECT_EQ(DecodeURL("%41" + plain + "%4"), "A" + plain + "\x10");
        EXPECT_EQ(DecodeURL("%41" + plain + "%"), "A" + plain + "\xD0");
    }
}

TEST(DecodeURL, NeverReadsADigitBeyondTheZeroByteThatEndsTheText) {
    EXPECT_EQ(DecodeURL("%\0A"s), "\xD0");
    EXPECT_EQ(DecodeURL("%4\0A"s), "\x10");
    EXPECT_EQ(DecodeURL("a\0%41"s), "a");
    EXPECT_EQ(DecodeURL("\0"s), "");
    EXPECT_EQ(DecodeURL(""), "");
}

TEST(DecodeURL, EqualsTheModelForEveryPairOfDigits) {
    for (int high = 0; high <= UCHAR_MAX; ++high) {
        for (int low = 0; low <= UCHAR_MAX; ++low) {
            std::string text = "%..x";
            text[1] = static_cast<char>(high);
            text[2] = static_cast<char>(low);
            ASSERT_EQ(DecodeURL(text), kiv_test::decode_url_model(text)) << high << ' ' << low;
        }
    }
}

TEST(DecodeURL, EqualsTheModelOnManyTexts) {
    expect_the_model_on_short_texts("%4aG+\0"sv, 6, DecodeURL, kiv_test::decode_url_model);
    expect_the_model_on_long_texts("%%%%0123456789abcdefABCDEF+z/", DecodeURL,
                                   kiv_test::decode_url_model);
}

TEST(EncodeHTML, ReplacesAmpersandsAndAngleBrackets) {
    EXPECT_EQ(EncodeHTML("a<b>&c"), "a&lt;b&gt;&amp;c");
    EXPECT_EQ(EncodeHTML("<>&"), "&lt;&gt;&amp;");
    EXPECT_EQ(EncodeHTML(""), "");
}

TEST(EncodeHTML, NeverEscapesTheAmpersandOfAnEntityThatItWrote) {
    EXPECT_EQ(EncodeHTML("<"), "&lt;");
    EXPECT_EQ(EncodeHTML("&lt;"), "&amp;lt;");
    EXPECT_EQ(EncodeHTML("&amp;"), "&amp;amp;");
}

TEST(EncodeHTML, LeavesQuotesApostrophesAndHighBytesAlone) {
    EXPECT_EQ(EncodeHTML("\"x\" 'y' \xC3\xA9"), "\"x\" 'y' \xC3\xA9");
}

TEST(EncodeHTML, TakesZeroBytesLikeAnyOther) {
    EXPECT_EQ(EncodeHTML("a\0<\0"s), "a\0&lt;\0"s);
}

TEST(EncodeHTML, EqualsTheModelOnEveryByteAndManyTexts) {
    expect_the_model_on_every_byte(EncodeHTML, kiv_test::encode_html_model);
    expect_the_model_on_short_texts("&<>;a\0"sv, 6, EncodeHTML, kiv_test::encode_html_model);
    expect_the_model_on_long_texts("&<>;\xBC\xA6\0"sv, EncodeHTML, kiv_test::encode_html_model);
}

TEST(EncodeSQL, DoublesEverySingleQuoteOnce) {
    EXPECT_EQ(EncodeSQL("O'Brien's"), "O''Brien''s");
    EXPECT_EQ(EncodeSQL("''"), "''''");
    EXPECT_EQ(EncodeSQL(""), "");
}

TEST(EncodeSQL, LeavesBackslashesZeroBytesAndDoubleQuotesAlone) {
    EXPECT_EQ(EncodeSQL("a\\'\0\"'"s), "a\\''\0\"''"s);
}

TEST(EncodeSQL, EqualsTheModelOnEveryByteAndManyTexts) {
    expect_the_model_on_every_byte(EncodeSQL, kiv_test::encode_sql_model);
    expect_the_model_on_short_texts("'\"\\\0"sv, 6, EncodeSQL, kiv_test::encode_sql_model);
    expect_the_model_on_long_texts("'\"\\\0\xA7"sv, EncodeSQL, kiv_test::encode_sql_model);
}

} // namespace
