#include "KivFramework/KivProcesses.h"

#include "tests/oracle/command_line_model.h"
#include "tests/support/all_texts.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

using namespace KivFramework::KivProcesses;
using arguments = std::vector<std::string>;

arguments arguments_of(const std::string& command_line) {
    char** array = kiv_create_argv_array(command_line.c_str());
    arguments list;
    for (char** text = array; *text != nullptr; ++text) {
        list.emplace_back(*text);
    }
    kiv_free_argv_array(array);
    return list;
}

TEST(CreateArgvArray, SeparatesArgumentsByRunsOfSpacesAndTabs) {
    EXPECT_EQ(arguments_of("a  b"), (arguments{"a", "b"}));
    EXPECT_EQ(arguments_of("a\tb"), (arguments{"a", "b"}));
    EXPECT_EQ(arguments_of(" \t a \t \t b \t "), (arguments{"a", "b"}));
    EXPECT_EQ(arguments_of("a\nb"), (arguments{"a\nb"}));
}

TEST(CreateArgvArray, GivesOnlyTheTerminatorForAnEmptyText) {
    EXPECT_EQ(arguments_of(""), arguments());
    EXPECT_EQ(arguments_of(" \t "), arguments());
}

TEST(CreateArgvArray, TakesNullForAnEmptyText) {
    char** array = kiv_create_argv_array(nullptr);
    EXPECT_EQ(array[0], nullptr);
    kiv_free_argv_array(array);
}

TEST(CreateArgvArray, KeepsQuotedSpacesAndTabsInOneArgument) {
    EXPECT_EQ(arguments_of(R"(x "y z" w)"), (arguments{"x", "y z", "w"}));
    EXPECT_EQ(arguments_of("\"a\tb\""), (arguments{"a\tb"}));
}

TEST(CreateArgvArray, GivesAnEmptyArgumentForAnEmptyPairOfQuotes) {
    EXPECT_EQ(arguments_of(R"("")"), (arguments{""}));
    EXPECT_EQ(arguments_of(R"(a "" b)"), (arguments{"a", "", "b"}));
    EXPECT_EQ(arguments_of(R"("""")"), (arguments{"", ""}));
}

TEST(CreateArgvArray, JoinsQuotedTextWithTheWordBeforeIt) {
    EXPECT_EQ(arguments_of(R"(ab"cd")"), (arguments{"abcd"}));
}

TEST(CreateArgvArray, StartsANewArgumentRightAfterAClosingQuote) {
    EXPECT_EQ(arguments_of(R"("ab"cd)"), (arguments{"ab", "cd"}));
    EXPECT_EQ(arguments_of(R"("ab""cd")"), (arguments{"ab", "cd"}));
}

TEST(CreateArgvArray, TakesABackslashAndAQuoteForALiteralQuote) {
    EXPECT_EQ(arguments_of(R"(a\"b)"), (arguments{R"(a"b)"}));
    EXPECT_EQ(arguments_of(R"("a\" b")"), (arguments{R"(a" b)"}));
}

TEST(CreateArgvArray, KeepsABackslashBeforeAnyOtherCharacter) {
    EXPECT_EQ(arguments_of(R"(a\b \ \\ c\)"), (arguments{R"(a\b)", R"(\)", R"(\\)", R"(c\)"}));
    EXPECT_EQ(arguments_of(R"(\\"a)"), (arguments{R"(\"a)"}));
}

TEST(CreateArgvArray, DropsAnEscapedQuoteThatNoArgumentFollows) {
    EXPECT_EQ(arguments_of(R"(\")"), arguments());
    EXPECT_EQ(arguments_of(R"(a \")"), (arguments{"a"}));
}

TEST(CreateArgvArray, CarriesALoneEscapedQuoteOverIntoTheNextArgument) {
    EXPECT_EQ(arguments_of(R"(\" a)"), (arguments{R"("a)"}));
    EXPECT_EQ(arguments_of(R"(\"	a b)"), (arguments{R"("a)", "b"}));
    EXPECT_EQ(arguments_of(R"(\" "")"), (arguments{R"(")"}));
}

TEST(CreateArgvArray, DropsAnUnterminatedQuotedWordAtTheEnd) {
    EXPECT_EQ(arguments_of(R"("abc)"), arguments());
    EXPECT_EQ(arguments_of(R"(a "b c)"), (arguments{"a"}));
}

TEST(CreateArgvArray, KeepsAnUnterminatedQuotePartOfAWordThatBeganBeforeIt) {
    EXPECT_EQ(arguments_of(R"(ab"c d)"), (arguments{"abc d"}));
}

TEST(CreateArgvArray, FollowsTheModelOnEveryShortText) {
    kiv_test::for_all_texts("a \t\"\\", 7, [](const std::string& text) {
        ASSERT_EQ(arguments_of(text), kiv_test::split_command_line_model(text.c_str())) << text;
    });
}

TEST(CreateArgvArray, FollowsTheModelOnLongRandomTexts) {
    constexpr std::string_view alphabet = "abc  \t\"\"\\\xff";
    std::mt19937 random(20);
    for (int round = 0; round < 2000; ++round) {
        std::string text(random() % 200, '\0');
        for (char& c : text) {
            c = alphabet[random() % alphabet.size()];
        }
        ASSERT_EQ(arguments_of(text), kiv_test::split_command_line_model(text.c_str())) << text;
    }
}

TEST(CreateArgvArray, HasNoLimitOnTheNumberOfArguments) {
    std::string text;
    for (int i = 0; i < 1000; ++i) {
        text += std::to_string(i) + ' ';
    }
    const arguments list = arguments_of(text);
    ASSERT_EQ(list.size(), 1000U);
    EXPECT_EQ(list.front(), "0");
    EXPECT_EQ(list.back(), "999");
}

TEST(CreateArgvArray, HasNoLimitOnTheLengthOfAnArgument) {
    const std::string word(100000, 'w');
    EXPECT_EQ(arguments_of("a " + word + " b"), (arguments{"a", word, "b"}));
    EXPECT_EQ(arguments_of('"' + word + " z\""), (arguments{word + " z"}));
}

TEST(FreeArgvArray, IgnoresNull) {
    kiv_free_argv_array(nullptr);
}

} // namespace
