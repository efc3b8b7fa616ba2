#include "KivFramework/internal/percent_references.h"

#include "tests/oracle/percent_references_model.h"
#include "tests/support/all_texts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using KivFramework::internal::expand_percent_references;
using variables = std::map<std::string, std::string>;

std::optional<std::string> expanded(const std::string& text, const variables& values) {
    return expand_percent_references(text, [&](const std::string& name) -> const std::string* {
        const auto value = values.find(name);
        return value == values.end() ? nullptr : &value->second;
    });
}

// More steps than any expansion of these tests takes that has an end.
constexpr int step_limit = 400;

TEST(ExpandPercentReferences, FollowsTheModelOnEveryShortTextWithEveryShortPairOfValues) {
    std::vector<std::string> texts;
    kiv_test::for_all_texts("%abx", 4, [&](const std::string& text) { texts.push_back(text); });
    kiv_test::for_all_texts("%abx", 2, [&](const std::string& a) {
        kiv_test::for_all_texts("%abx", 2, [&](const std::string& b) {
            const variables values{{"a", a}, {"b", b}};
            for (const std::string& text : texts) {
                ASSERT_EQ(expanded(text, values),
                          kiv_test::expand_percent_references_model(text, values, step_limit))
                    << text << " with a=" << a << " b=" << b;
            }
        });
    });
}

TEST(ExpandPercentReferences, FollowsTheModelOnRandomTextsAndValues) {
    constexpr std::string_view alphabet = "%%%ababx";
    std::mt19937 random(7);
    const auto random_text = [&](std::size_t longest) {
        std::string text(random() % (longest + 1), '\0');
        std::generate(text.begin(), text.end(),
                      [&] { return alphabet[random() % alphabet.size()]; });
        return text;
    };
    int endless = 0;
    for (int round = 0; round < 20000; ++round) {
        const variables values{
            {"a", random_text(7)}, {"b", random_text(7)}, {"ab", random_text(9)}, {"c", ""}};
        const std::string text = random_text(16);
        const auto result = expanded(text, values);
        ASSERT_EQ(result, kiv_test::expand_percent_references_model(text, values, step_limit))
            << text << " with a=" << values.at("a") << " b=" << values.at("b")
            << " ab=" << values.at("ab");
        endless += result.has_value() ? 0 : 1;
    }
    EXPECT_GT(endless, 100);
    EXPECT_LT(endless, 19000);
}

TEST(ExpandPercentReferences, RecognisesEveryWayWithoutAnEnd) {
    EXPECT_EQ(expanded("%a%", {{"a", "%a%"}}), std::nullopt);               // stays as it is
    EXPECT_EQ(expanded("%a%", {{"a", "x%a%"}}), std::nullopt);              // the result grows
    EXPECT_EQ(expanded("%a%", {{"a", "%a%x"}}), std::nullopt);              // the rest grows
    EXPECT_EQ(expanded("%a%", {{"a", "%b%"}, {"b", "%a%"}}), std::nullopt); // through another
    EXPECT_EQ(expanded("%ab", {{"a", "%ab"}}), std::nullopt); // closed by the end of the text
    EXPECT_EQ(expanded("%a%", {{"a", "%"}}), "");
}

TEST(ExpandPercentReferences, TakesRepeatedReferencesForNoRepetition) {
    EXPECT_EQ(expanded("%a%%a%%a%", {{"a", "v"}}), "vvv");
    EXPECT_EQ(expanded("%b%%b%", {{"a", "x"}, {"b", "%a%%a%"}}), "xxxx");
    EXPECT_EQ(expanded("%a%%a%", {{"a", ""}}), "");
}

TEST(ExpandPercentReferences, TakesTimeProportionalToTheTextOnAnySize) {
    // A working text searched from its beginning at every step would not come to an end here.
    std::string text;
    std::string expected;
    for (int i = 0; i < 200000; ++i) {
        text += "%a% ";
        expected += "value ";
    }
    EXPECT_EQ(expanded(text, {{"a", "value"}}), expected);
}

} // namespace
