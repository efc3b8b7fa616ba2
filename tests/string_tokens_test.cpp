#include "KivFramework/KivStringHelper.h"

#include "tests/oracle/extract_token_model.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <ios>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace kiv_test {

std::ostream& operator<<(std::ostream& out, const extraction& result) {
    return out << std::boolalpha << result.taken << " token [" << result.token << "] source ["
               << result.source << "]";
}

} // namespace kiv_test

namespace {

using namespace KivFramework::KivStringHelper;
using namespace std::string_literals;

using pieces = std::vector<std::string>;

using kiv_test::extraction;

// Both overloads start with the token "unset".
extraction extract(const std::string& source, const char* separator, const char* quote,
                   bool strip_quotes) {
    extraction result{false, "unset", source};
    result.taken = ExtractToken(result.source, result.token, separator, quote, strip_quotes);
    return result;
}

extraction extract(const std::string& source, const char* separator) {
    extraction result{false, "unset", source};
    result.taken = ExtractToken(result.source, result.token, separator);
    return result;
}

extraction stripped(const std::string& source) {
    return extract(source, ",", "'", /*strip_quotes=*/true);
}

extraction kept(const std::string& source) {
    return extract(source, ",", "'", /*strip_quotes=*/false);
}

TEST(ExtractTokenQuoted, TakesTheTextBeforeTheSeparator) {
    EXPECT_EQ(stripped("a,b"), (extraction{true, "a", "b"}));
    EXPECT_EQ(stripped("x"), (extraction{true, "x", ""}));
    EXPECT_EQ(stripped("a,"), (extraction{true, "a", ""}));
}

TEST(ExtractTokenQuoted, ReturnsFalseOnAnEmptySource) {
    EXPECT_EQ(stripped(""), (extraction{false, "unset", ""}));
}

TEST(ExtractTokenQuoted, GivesAnEmptyTokenBetweenTwoSeparators) {
    EXPECT_EQ(stripped(",,b"), (extraction{true, "", ",b"}));
    EXPECT_EQ(stripped(","), (extraction{true, "", ""}));
}

TEST(ExtractTokenQuoted, TakesASeparatorInsideQuotesAsText) {
    EXPECT_EQ(stripped("'x,y',z"), (extraction{true, "x,y", "z"}));
    EXPECT_EQ(stripped("a'x,y'b'',z"), (extraction{true, "ax,yb", "z"}));
}

TEST(ExtractTokenQuoted, KeepsTheQuotesUnlessStripped) {
    EXPECT_EQ(kept("'x,y',z"), (extraction{true, "'x,y'", "z"}));
}

TEST(ExtractTokenQuoted, LeavesBothTextsAloneWhenAQuoteStaysOpen) {
    EXPECT_EQ(stripped("'open,z"), (extraction{false, "unset", "'open,z"}));
    EXPECT_EQ(stripped("'open\0,z"s), (extraction{false, "unset", "'open\0,z"s}));
}

TEST(ExtractTokenQuoted, ReadsEscapesInsideAndOutsideQuotes) {
    EXPECT_EQ(stripped(R"(a\,b,c)"), (extraction{true, "a,b", "c"}));
    EXPECT_EQ(stripped(R"(\n\t\\\r,c)"), (extraction{true, "\n\t\\r", "c"}));
    EXPECT_EQ(stripped(R"('\n\t\\\'',c)"), (extraction{true, "\n\t\\'", "c"}));
    EXPECT_EQ(stripped(R"(\'a,c)"), (extraction{true, "'a", "c"}));
}

TEST(ExtractTokenQuoted, CopiesABackslashAtTheEnd) {
    EXPECT_EQ(stripped(R"(a\)"), (extraction{true, R"(a\)", ""}));
    EXPECT_EQ(stripped("a\\\0,b"s), (extraction{true, R"(a\)", ""}));
}

TEST(ExtractTokenQuoted, EndsTheTokenAtASeparatorThatIsAlsoTheQuote) {
    EXPECT_EQ(extract("a'b'c", "'", "'", true), (extraction{true, "a", "b'c"}));
}

TEST(ExtractTokenQuoted, EndsTheTokenAtASeparatorThatIsTheBackslash) {
    EXPECT_EQ(extract(R"(a\nb)", "\\", "'", true), (extraction{true, "a", "nb"}));
    EXPECT_EQ(extract(R"('a\nb'\c)", "\\", "'", true), (extraction{true, "a\nb", "c"}));
}

TEST(ExtractTokenQuoted, NeverClosesABackslashThatIsTheQuote) {
    EXPECT_EQ(extract(R"(\a\b,c)", ",", "\\", true), (extraction{true, "ab", "c"}));
    EXPECT_EQ(extract(R"(a\)", ",", "\\", true), (extraction{false, "unset", R"(a\)"}));
}

TEST(ExtractTokenQuoted, MakesOneTokenOfAllWithAnEmptySeparator) {
    EXPECT_EQ(extract("a,'b',c", "", "'", true), (extraction{true, "a,b,c", ""}));
    EXPECT_EQ(extract("a,'b", "", "'", true), (extraction{false, "unset", "a,'b"}));
}

TEST(ExtractTokenQuoted, KnowsNoQuotesWithAnEmptyQuote) {
    EXPECT_EQ(extract("'a,b'", ",", "", true), (extraction{true, "'a", "b'"}));
}

TEST(ExtractTokenQuoted, LooksAtTheFirstByteOfSeparatorAndQuoteOnly) {
    EXPECT_EQ(extract("'a;b'\"c;d", ",;", "'\"", true), (extraction{true, "a;b\"c;d", ""}));
}

TEST(ExtractTokenQuoted, EndsTheTextAtItsFirstZeroByte) {
    EXPECT_EQ(stripped("a,b\0c,d"s), (extraction{true, "a", "b"}));
    EXPECT_EQ(stripped("ab\0c,d"s), (extraction{true, "ab", ""}));
    EXPECT_EQ(stripped("\0a"s), (extraction{true, "", ""}));
}

TEST(ExtractTokenQuoted, TakesBytesAbove7FLikeAnyOther) {
    EXPECT_EQ(extract("a\xFF\xE9 b\xFF,\xE9\xFF", "\xFF", "\xE9", true),
              (extraction{true, "a", "\xE9 b\xFF,\xE9\xFF"}));
    EXPECT_EQ(extract("\xE9 b\xFF\xE9\xFFz", "\xFF", "\xE9", true),
              (extraction{true, " b\xFF", "z"}));
}

TEST(ExtractTokenQuoted, TakesNullAsTheEmptyText) {
    EXPECT_EQ(extract("a,'b", nullptr, nullptr, true), (extraction{true, "a,'b", ""}));
}

// Every text over the alphabet, up to that length, the empty one included.
std::vector<std::string> all_texts(const std::string& alphabet, std::size_t max_length) {
    std::vector<std::string> texts{""};
    for (std::size_t i = 0; i < texts.size() && texts[i].size() < max_length; ++i) {
        for (const char byte : alphabet) {
            texts.push_back(texts[i] + byte);
        }
    }
    return texts;
}

TEST(ExtractTokenQuoted, EqualsTheModelOnEveryShortTextForEverySeparatorAndQuote) {
    const std::vector<std::string> texts = all_texts(",'\\n\0"s, 6);
    for (const char* separator : {",", "'", "\\", "n", "", ",'"}) {
        for (const char* quote : {"'", ",", "\\", "n", "", "',"}) {
            for (const bool strip_quotes : {false, true}) {
                for (const std::string& text : texts) {
                    const extraction expected = kiv_test::extract_token_model(
                        text, "unset", separator, quote, strip_quotes);
                    ASSERT_EQ(extract(text, separator, quote, strip_quotes), expected)
                        << "text [" << text << "] separator [" << separator << "] quote [" << quote
                        << "] strip " << strip_quotes;
                }
            }
        }
    }
}

TEST(ExtractTokenPlain, TakesTheTextBeforeTheSeparator) {
    EXPECT_EQ(extract("key=value", "="), (extraction{true, "key", "value"}));
    EXPECT_EQ(extract("=value=", "="), (extraction{true, "", "value="}));
    EXPECT_EQ(extract("key=", "="), (extraction{true, "key", ""}));
}

TEST(ExtractTokenPlain, ReturnsFalseOnAnEmptySource) {
    EXPECT_EQ(extract("", "="), (extraction{false, "unset", ""}));
    EXPECT_EQ(extract("", ""), (extraction{false, "unset", ""}));
}

TEST(ExtractTokenPlain, TakesAllWhenThereIsNoSeparator) {
    EXPECT_EQ(extract("a:b", "::"), (extraction{true, "a:b", ""}));
}

TEST(ExtractTokenPlain, SkipsOneByteOfALongSeparator) {
    EXPECT_EQ(extract("a::b", "::"), (extraction{true, "a", ":b"}));
    EXPECT_EQ(extract("a--->b", "--->"), (extraction{true, "a", "-->b"}));
}

TEST(ExtractTokenPlain, GivesAnEmptyTokenAndSkipsOneByteWithAnEmptySeparator) {
    EXPECT_EQ(extract("abc", ""), (extraction{true, "", "bc"}));
    EXPECT_EQ(extract("abc", nullptr), (extraction{true, "", "bc"}));
}

TEST(ExtractTokenPlain, KnowsNoQuotesAndEscapes) {
    EXPECT_EQ(extract(R"("a\,b")", ","), (extraction{true, R"("a\)", R"(b")"}));
    EXPECT_EQ(extract(" a , b ", ","), (extraction{true, " a ", " b "}));
}

TEST(ExtractTokenPlain, TakesZeroBytesLikeAnyOther) {
    EXPECT_EQ(extract("a\0b,c\0d"s, ","), (extraction{true, "a\0b"s, "c\0d"s}));
}

TEST(TokenizeString, KeepsEmptyPiecesBetweenSeparatorsAndDropsAnEmptyLastOne) {
    EXPECT_EQ(TokenizeString("a,,b,", ","), (pieces{"a", "", "b"}));
    EXPECT_EQ(TokenizeString(",a", ","), (pieces{"", "a"}));
    EXPECT_EQ(TokenizeString(",", ","), (pieces{""}));
    EXPECT_EQ(TokenizeString(" a , b ", ","), (pieces{" a ", " b "}));
    EXPECT_EQ(TokenizeString("abc", ","), (pieces{"abc"}));
}

TEST(TokenizeString, GivesNothingForAnEmptyText) {
    EXPECT_EQ(TokenizeString("", ","), pieces{});
    EXPECT_EQ(TokenizeString("", ""), pieces{});
}

TEST(TokenizeString, KeepsTheTextWholeWithoutSeparators) {
    EXPECT_EQ(TokenizeString("a,b", ""), (pieces{"a,b"}));
}

TEST(TokenizeString, SplitsAtAnySeparatorAndSkipsAsManyBytesAsThereAre) {
    EXPECT_EQ(TokenizeString("one\r\ntwo\r\n", "\r\n"), (pieces{"one", "two"}));
    EXPECT_EQ(TokenizeString("one\ntwo", "\r\n"), (pieces{"one", "wo"}));
    EXPECT_EQ(TokenizeString("a;bc,de;f", ",;"), (pieces{"a", "c", "e"}));
    EXPECT_EQ(TokenizeString("a,;b", ";,"), (pieces{"a", "b"}));
    EXPECT_EQ(TokenizeString("a;b", ";;"), (pieces{"a"}));
}

TEST(TokenizeString, ThrowsOutOfRangeWhenTheSkipPassesTheEnd) {
    EXPECT_THROW(TokenizeString("one\n", "\r\n"), std::out_of_range);
    EXPECT_THROW(TokenizeString("a;b", "; ,"), std::out_of_range);
    EXPECT_THROW(TokenizeStringToSet("one\n", "\r\n"), std::out_of_range);
    EXPECT_THROW(TokenizeStringToLongSet("1\n", "\r\n"), std::out_of_range);
}

TEST(TokenizeString, GivesTheSamePiecesHoweverLongTheTextAndThePiecesAre) {
    for (const std::size_t piece_length : {0U, 1U, 7U, 15U, 16U, 31U, 33U, 200U}) {
        pieces expected;
        std::string text;
        while (text.size() < 4000) {
            expected.emplace_back(piece_length, static_cast<char>('a' + expected.size() % 26));
            text += expected.back() + ',';
            if (expected.size() % 100 == 1) {
                ASSERT_EQ(TokenizeString(text, ","), expected) << piece_length;
            }
        }
    }
}

TEST(TokenizeString, TakesZeroBytesLikeAnyOther) {
    EXPECT_EQ(TokenizeString("a\0b,\0"s, ","), (pieces{"a\0b"s, "\0"s}));
    EXPECT_EQ(TokenizeString("a\0b"s, "\0"s), (pieces{"a", "b"}));
}

TEST(TokenizeStringToSet, OrdersThePiecesByBytesAndDropsDuplicates) {
    const std::set<std::string> expected{"", "B", "a", "\xE9"};
    EXPECT_EQ(TokenizeStringToSet("a,B,a,,\xE9,B,", ","), expected);
    EXPECT_EQ(*TokenizeStringToSet("\xE9,a", ",").begin(), "a");
}

TEST(TokenizeStringToSet, LeavesOutAnEmptyLastPieceOnly) {
    EXPECT_EQ(TokenizeStringToSet("a,", ","), (std::set<std::string>{"a"}));
    EXPECT_EQ(TokenizeStringToSet(",a", ","), (std::set<std::string>{"", "a"}));
}

TEST(TokenizeStringToLongSet, ReadsNumbersAndLeavesOutEmptyPieces) {
    EXPECT_EQ(TokenizeStringToLongSet("3, 1,x,,2", ","), (std::set<long>{0, 1, 2, 3}));
    EXPECT_EQ(TokenizeStringToLongSet(",,1,,", ","), (std::set<long>{1}));
    EXPECT_EQ(TokenizeStringToLongSet("", ","), std::set<long>{});
}

TEST(TokenizeStringToLongSet, ReadsAPieceUpToItsFirstByteThatIsNoDigit) {
    EXPECT_EQ(TokenizeStringToLongSet("12ab; \t-7 8;+5;- 3;0x10", ";"),
              (std::set<long>{-7, 0, 5, 12}));
    EXPECT_EQ(TokenizeStringToLongSet("1\0002"s, ","), (std::set<long>{1}));
}

TEST(TokenizeStringToLongSet, NeverReadsBeyondAPieceWhenASeparatorIsADigit) {
    EXPECT_EQ(TokenizeStringToLongSet("71829", "8"), (std::set<long>{71, 29}));
}

TEST(TokenizeStringToLongSet, KeepsWithinTheRangeOfLong) {
    EXPECT_EQ(TokenizeStringToLongSet("99999999999999999999,-99999999999999999999", ","),
              (std::set<long>{LONG_MIN, LONG_MAX}));
}

// What one splitting answers and leaves; both outputs start as "unset".
struct command {
    bool split;
    std::string program;
    std::string arguments;

    bool operator==(const command&) const = default;
};

std::ostream& operator<<(std::ostream& out, const command& result) {
    return out << std::boolalpha << result.split << " program [" << result.program
               << "] arguments [" << result.arguments << "]";
}

command split(const std::string& line) {
    command result{false, "unset", "unset"};
    result.split = SplitCommandLines(line, result.program, result.arguments);
    return result;
}

TEST(SplitCommandLines, SplitsAtTheFirstSpace) {
    EXPECT_EQ(split("ls -l /tmp"), (command{true, "ls", "-l /tmp"}));
    EXPECT_EQ(split("ls\t-l x"), (command{true, "ls\t-l", "x"}));
}

TEST(SplitCommandLines, TakesAQuotedProgramWithoutItsQuotes) {
    EXPECT_EQ(split(R"("/Applications/My Tool/run" -v)"),
              (command{true, "/Applications/My Tool/run", "-v"}));
    EXPECT_EQ(split(R"("" x)"), (command{true, "", "x"}));
}

TEST(SplitCommandLines, ReturnsFalseOnAnEmptyLineOrALeadingSpace) {
    EXPECT_EQ(split(""), (command{false, "unset", "unset"}));
    EXPECT_EQ(split(" ls"), (command{false, "unset", "unset"}));
}

TEST(SplitCommandLines, LeavesArgumentsAsTheyWereWhenThereAreNone) {
    EXPECT_EQ(split("ls"), (command{true, "ls", "unset"}));
    EXPECT_EQ(split("ls "), (command{true, "ls", "unset"}));
    EXPECT_EQ(split(R"("ls")"), (command{true, "ls", "unset"}));
    EXPECT_EQ(split(R"("ls" )"), (command{true, "ls", "unset"}));
}

TEST(SplitCommandLines, SkipsOneByteAfterTheProgram) {
    EXPECT_EQ(split("ls  -l"), (command{true, "ls", " -l"}));
    EXPECT_EQ(split(R"("ls"  -l)"), (command{true, "ls", " -l"}));
    EXPECT_EQ(split(R"("ls"-l)"), (command{true, "ls", "l"})); // the byte may be anything
}

TEST(SplitCommandLines, RunsAnOpenQuoteToTheEnd) {
    EXPECT_EQ(split(R"("my tool -v)"), (command{true, "my tool -v", "unset"}));
    EXPECT_EQ(split(R"(")"), (command{true, "", "unset"}));
}

TEST(SplitCommandLines, DropsTheFirstByteWhenAQuoteStandsInsideAWord) {
    EXPECT_EQ(split(R"(ab"c d" e)"), (command{true, R"(b"c d)", "e"}));
    EXPECT_EQ(split(R"(ab")"), (command{true, R"(b")", "unset"}));
}

TEST(GetLine, NumbersLinesFromOne) {
    EXPECT_EQ(GetLine("a\nb", 1), "a");
    EXPECT_EQ(GetLine("a\nb", 2), "b");
    EXPECT_EQ(GetLine("a\n\nc", 2), "");
    EXPECT_EQ(GetLine("a\n\nc", 3), "c");
    EXPECT_EQ(GetLine("only", 1), "only");
}

TEST(GetLine, GivesTheEmptyTextForALineThatIsNotThere) {
    for (const int number : {3, 4, 0, -1, INT_MIN, INT_MAX}) {
        SCOPED_TRACE(number);
        EXPECT_EQ(GetLine("a\nb", number), "");
    }
    EXPECT_EQ(GetLine("", 1), "");
    EXPECT_EQ(GetLine("", 2), "");
}

TEST(GetLine, CountsTheTextAfterTheLastLineFeedAsALine) {
    EXPECT_EQ(GetLine("a\nb\n", 2), "b");
    EXPECT_EQ(GetLine("a\nb\n", 3), "");
}

TEST(GetLine, KeepsTheCarriageReturn) {
    EXPECT_EQ(GetLine("a\r\nb", 1), "a\r");
    EXPECT_EQ(GetLine("a\rb", 1), "a\rb");
}

TEST(GetLine, EndsAStringAtItsFirstZeroByte) {
    EXPECT_EQ(GetLine("a\nb\0c\nd"s, 2), "b");
    EXPECT_EQ(GetLine("a\nb\0c\nd"s, 3), "");
    EXPECT_EQ(GetLine("a\r\nb"s, 1), "a\r");
}

TEST(GetLine, TakesNullAsTheEmptyText) {
    EXPECT_EQ(GetLine(static_cast<const char*>(nullptr), 1), "");
}

TEST(Replace, ReplacesEveryOccurrenceFromLeftToRight) {
    EXPECT_EQ(Replace("one two one", "one", "1"), "1 two 1");
    EXPECT_EQ(Replace("aaa", "aa", "b"), "ba");
    EXPECT_EQ(Replace("a-b-", "-", ""), "ab");
    EXPECT_EQ(Replace("--", "-", "+"), "++");
    EXPECT_EQ(Replace("abc", "x", "y"), "abc");
}

TEST(Replace, NeverSearchesWhatItInserted) {
    EXPECT_EQ(Replace("aXa", "a", "aa"), "aaXaa");
    EXPECT_EQ(Replace("ab", "a", "bab"), "babb");
    EXPECT_EQ(Replace("abb", "ab", "a"), "ab");
}

TEST(Replace, ReturnsTheTextWhenItOrTheSearchIsEmpty) {
    EXPECT_EQ(Replace("abc", "", "x"), "abc");
    EXPECT_EQ(Replace("", "a", "x"), "");
    EXPECT_EQ(Replace("", "", "x"), "");
}

TEST(Replace, TakesZeroBytesLikeAnyOther) {
    EXPECT_EQ(Replace("a\0b\0"s, "\0"s, "."), "a.b.");
}

TEST(ConformToOS, TurnsBackslashesIntoSlashesOnly) {
    EXPECT_EQ(ConformToOS(R"(dir\sub\file)"), "dir/sub/file");
    EXPECT_EQ(ConformToOS(R"(C:\\x//y\)"), "C://x//y/");
    EXPECT_EQ(ConformToOS(""), "");
}

std::string ranges(std::set<long> numbers) {
    return LongSetToPrintableRanges(&numbers);
}

TEST(LongSetToPrintableRanges, JoinsRunsAndSingleValues) {
    EXPECT_EQ(ranges({1, 2, 3, 5, 7, 8, 9}), "1-3,5,7-9");
    EXPECT_EQ(ranges({4, 5}), "4-5");
    EXPECT_EQ(ranges({4}), "4");
    EXPECT_EQ(ranges({4, 6}), "4,6");
}

TEST(LongSetToPrintableRanges, GivesTheEmptyTextForTheEmptySet) {
    EXPECT_EQ(ranges({}), "");
    EXPECT_EQ(LongSetToPrintableRanges(nullptr), "");
}

TEST(LongSetToPrintableRanges, KeepsTheSignOfNegativeValues) {
    EXPECT_EQ(ranges({-3, -2}), "-3--2");
    EXPECT_EQ(ranges({-2, -1, 0, 1, 3}), "-2-1,3");
}

TEST(LongSetToPrintableRanges, HoldsAtTheLimitsOfLong) {
    const std::string least = std::to_string(LONG_MIN);
    const std::string greatest = std::to_string(LONG_MAX);
    EXPECT_EQ(ranges({LONG_MAX - 1, LONG_MAX}), std::to_string(LONG_MAX - 1) + '-' + greatest);
    EXPECT_EQ(ranges({LONG_MIN, LONG_MIN + 1, LONG_MAX}),
              least + '-' + std::to_string(LONG_MIN + 1) + ',' + greatest);
    EXPECT_EQ(ranges({LONG_MIN, LONG_MAX}), least + ',' + greatest);
}

TEST(LongSetToPrintableRanges, LeavesTheSetAsItIs) {
    std::set<long> numbers{1, 2, 9};
    LongSetToPrintableRanges(&numbers);
    EXPECT_EQ(numbers, (std::set<long>{1, 2, 9}));
}

} // namespace
