#include "KivFramework/KivPropertyMap.h"

#include "tests/support/temp_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <clocale>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <list>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace KivFramework {

bool operator==(const item_attr& left, const item_attr& right) {
    return left.name == right.name && left.value == right.value &&
           left.userFlag == right.userFlag && left.stringOnlyFlag == right.stringOnlyFlag;
}

void PrintTo(const item_attr& entry, std::ostream* out) {
    *out << entry.name << '=' << entry.value << (entry.userFlag ? " user" : "")
         << (entry.stringOnlyFlag ? " string-only" : "");
}

} // namespace KivFramework

namespace {

using KivFramework::item_attr;
using KivFramework::kivPropertyMap;
using KivFramework::kivPropertyMap_Iterator;
using testing::ElementsAre;

std::vector<item_attr> entries_of(kivPropertyMap& map) {
    std::vector<item_attr> entries;
    for (kivPropertyMap_Iterator at = map.Begin(); at != map.End(); ++at) {
        entries.push_back(*at);
    }
    return entries;
}

std::vector<std::string> names_of(kivPropertyMap& map) {
    std::vector<std::string> names;
    for (const item_attr& entry : entries_of(map)) {
        names.push_back(entry.name);
    }
    return names;
}

std::string text_of(const kivPropertyMap& map, const char* name) {
    std::string text = "(none)";
    map.GetString(name, text, nullptr, nullptr);
    return text;
}

// A map of one entry, called "name".
kivPropertyMap map_of(const std::string& text) {
    kivPropertyMap map;
    map.SetString("name", text, false, false);
    return map;
}

TEST(ItemAttr, HasItsFieldsInOrder) {
    EXPECT_EQ(offsetof(item_attr, name), 0);
    EXPECT_EQ(offsetof(item_attr, value), sizeof(std::string));
    EXPECT_EQ(offsetof(item_attr, userFlag), 2 * sizeof(std::string));
    EXPECT_EQ(offsetof(item_attr, stringOnlyFlag), 2 * sizeof(std::string) + 1);
    EXPECT_EQ(sizeof(item_attr), 2 * sizeof(std::string) + alignof(std::string));
}

TEST(ItemAttr, StartsWithoutTextAndMarks) {
    EXPECT_EQ(item_attr(), (item_attr{"", "", false, false}));
}

TEST(PropertyMap, HoldsItsListAndNothingElse) {
    EXPECT_EQ(sizeof(kivPropertyMap), sizeof(std::list<item_attr>));
    EXPECT_EQ(alignof(kivPropertyMap), alignof(std::list<item_attr>));
    EXPECT_FALSE(std::is_polymorphic_v<kivPropertyMap>);
}

TEST(PropertyMapIterator, HoldsItsPositionAndNothingElse) {
    EXPECT_EQ(sizeof(kivPropertyMap_Iterator), sizeof(std::list<item_attr>::iterator));
    EXPECT_FALSE(std::is_polymorphic_v<kivPropertyMap_Iterator>);
}

TEST(PropertyMap, StartsEmpty) {
    kivPropertyMap map;
    EXPECT_TRUE(map.IsEmpty());
    EXPECT_EQ(map.GetSize(), 0);
    EXPECT_FALSE(map.Begin() != map.End());
}

TEST(PropertyMap, KeepsNamesInTheOrderOfTheirFirstSetting) {
    kivPropertyMap map;
    map.SetInt("zebra", 1, false);
    map.SetString("ant", "2", false, false);
    map.SetBool("mole", true, false);
    map.SetInt("zebra", 4, false);
    map.SetString("mole", "5", false, false);

    EXPECT_THAT(names_of(map), ElementsAre("zebra", "ant", "mole"));
    EXPECT_EQ(text_of(map, "zebra"), "4");
    EXPECT_EQ(text_of(map, "mole"), "5");
}

TEST(PropertyMap, TellsNamesApartByCase) {
    kivPropertyMap map;
    map.SetString("name", "lower", false, false);
    map.SetString("Name", "upper", false, false);

    EXPECT_EQ(map.GetSize(), 2);
    EXPECT_EQ(text_of(map, "name"), "lower");
    EXPECT_EQ(text_of(map, "Name"), "upper");
    EXPECT_EQ(text_of(map, "NAME"), "(none)");
}

TEST(PropertyMap, ComparesNamesByteForByte) {
    kivPropertyMap map;
    map.SetString("", "empty", false, false);
    map.SetString("na", "prefix", false, false);
    map.SetString(" name", "blank", false, false);
    map.SetString("n\xE4me", "high byte", false, false);

    EXPECT_EQ(text_of(map, ""), "empty");
    EXPECT_EQ(text_of(map, "name"), "(none)");
    EXPECT_EQ(text_of(map, "na"), "prefix");
    EXPECT_EQ(text_of(map, " name"), "blank");
    EXPECT_EQ(text_of(map, "n\xE4me"), "high byte");
    EXPECT_EQ(map.GetSize(), 4);
}

TEST(PropertyMap, KeepsEveryByteOfAText) {
    const std::string text("a\0b\n\xFF", 5);
    kivPropertyMap map;
    map.SetString("name", text, false, false);
    EXPECT_EQ(text_of(map, "name"), text);
}

TEST(PropertyMap, HoldsThousandsOfEntries) {
    kivPropertyMap map;
    constexpr int count = 3000;
    for (int number = 0; number < count; ++number) {
        map.SetInt(("name" + std::to_string(number)).c_str(), number, false);
    }
    EXPECT_EQ(map.GetSize(), count);
    int last = 0;
    EXPECT_TRUE(map.GetInt("name2999", last, nullptr));
    EXPECT_EQ(last, 2999);
}

TEST(PropertyMap, CopiesHaveEntriesOfTheirOwn) {
    kivPropertyMap map;
    map.SetString("name", "old", true, true);
    kivPropertyMap constructed(map);
    kivPropertyMap assigned;
    assigned.SetInt("other", 1, false);
    assigned = map;
    map.SetString("name", "new", false, false);

    EXPECT_THAT(entries_of(constructed), ElementsAre(item_attr{"name", "old", true, true}));
    EXPECT_THAT(entries_of(assigned), ElementsAre(item_attr{"name", "old", true, true}));
}

TEST(PropertyMap, KeepsItsEntriesWhenAssignedToItself) {
    kivPropertyMap map = map_of("text");
    const kivPropertyMap& same = map;
    map = same;
    EXPECT_EQ(text_of(map, "name"), "text");
}

TEST(Clear, RemovesAllEntries) {
    kivPropertyMap map;
    map.SetInt("a", 1, true);
    map.SetInt("b", 2, true);
    map.Clear();

    EXPECT_TRUE(map.IsEmpty());
    EXPECT_EQ(map.GetSize(), 0);
    EXPECT_EQ(text_of(map, "a"), "(none)");

    map.SetInt("b", 3, false);
    EXPECT_THAT(entries_of(map), ElementsAre(item_attr{"b", "3", false, false}));
}

TEST(Copy, GivesTheSameEntriesInTheSameOrder) {
    kivPropertyMap source;
    source.SetString("b", "text", true, true);
    source.SetInt("a", 7, true);
    source.SetString("c", "", false, true);
    kivPropertyMap target;
    target.SetString("c", "old", true, false);
    target.SetString("gone", "old", true, false);
    target.Copy(&source);

    EXPECT_EQ(entries_of(target), entries_of(source));
    EXPECT_THAT(entries_of(target),
                ElementsAre(item_attr{"b", "text", true, true}, item_attr{"a", "7", true, false},
                            item_attr{"c", "", false, true}));
}

TEST(Copy, LeavesTheSourceAndTheTargetIndependent) {
    kivPropertyMap source = map_of("old");
    kivPropertyMap target;
    target.Copy(&source);
    source.SetString("name", "new", false, false);
    source.SetInt("more", 1, false);

    EXPECT_THAT(entries_of(target), ElementsAre(item_attr{"name", "old", false, false}));
}

TEST(Copy, OfAnEmptySourceEmptiesTheTarget) {
    kivPropertyMap source;
    kivPropertyMap target = map_of("text");
    target.Copy(&source);
    EXPECT_TRUE(target.IsEmpty());
}

TEST(Copy, OfTheMapItselfEmptiesIt) {
    kivPropertyMap map = map_of("text");
    map.Copy(&map);
    EXPECT_TRUE(map.IsEmpty());
}

TEST(Iterator, WalksTheEntriesInOrder) {
    kivPropertyMap map;
    map.SetString("a", "1", true, false);
    map.SetString("b", "2", false, true);

    kivPropertyMap_Iterator at = map.Begin();
    ASSERT_TRUE(at != map.End());
    EXPECT_EQ(*at, (item_attr{"a", "1", true, false}));
    ++at;
    ASSERT_TRUE(at != map.End());
    EXPECT_EQ(*at, (item_attr{"b", "2", false, true}));
    ++at;
    EXPECT_FALSE(at != map.End());
}

TEST(Iterator, AdvancesAndReturnsACopyAtTheNewPlace) {
    kivPropertyMap map;
    map.SetInt("a", 1, false);
    map.SetInt("b", 2, false);
    map.SetInt("c", 3, false);

    kivPropertyMap_Iterator at = map.Begin();
    kivPropertyMap_Iterator copy = ++at;
    EXPECT_FALSE(copy != at);
    EXPECT_EQ((*copy).name, "b");
    ++copy;
    EXPECT_TRUE(copy != at);
    EXPECT_EQ((*at).name, "b");
    EXPECT_EQ((*copy).name, "c");
}

TEST(Iterator, GivesCopiesOfTheEntries) {
    kivPropertyMap map = map_of("text");
    item_attr entry = *map.Begin();
    entry.name = "other";
    entry.value = "changed";
    entry.userFlag = true;
    entry.stringOnlyFlag = true;

    EXPECT_THAT(entries_of(map), ElementsAre(item_attr{"name", "text", false, false}));
}

TEST(Iterator, StartsAtANullPlaceThatEqualsNoneOfAMap) {
    kivPropertyMap map = map_of("text");
    kivPropertyMap empty;
    EXPECT_TRUE(kivPropertyMap_Iterator() != map.Begin());
    EXPECT_TRUE(kivPropertyMap_Iterator() != map.End());
    EXPECT_TRUE(kivPropertyMap_Iterator() != empty.End());
    EXPECT_FALSE(kivPropertyMap_Iterator() != kivPropertyMap_Iterator());

    kivPropertyMap_Iterator at;
    at = map.Begin();
    EXPECT_EQ((*at).value, "text");
}

TEST(Iterator, IsMadeFromAListPosition) {
    std::list<item_attr> entries = {{"a", "1", true, false}, {"b", "2", false, false}};
    const kivPropertyMap_Iterator at(std::next(entries.begin()));
    EXPECT_EQ(*at, (item_attr{"b", "2", false, false}));
    EXPECT_FALSE(at != kivPropertyMap_Iterator(std::next(entries.begin())));
}

TEST(Iterator, StaysValidAcrossSetters) {
    kivPropertyMap map;
    map.SetInt("a", 1, false);
    map.SetInt("b", 2, false);
    const kivPropertyMap_Iterator first = map.Begin();
    kivPropertyMap_Iterator second = map.Begin();
    ++second;
    map.SetString("a", std::string(1000, 'x'), true, true);
    map.SetBool("b", true, true);
    for (int number = 0; number < 1000; ++number) {
        map.SetInt(("more" + std::to_string(number)).c_str(), number, false);
    }

    EXPECT_EQ(*first, (item_attr{"a", std::string(1000, 'x'), true, true}));
    EXPECT_EQ(*second, (item_attr{"b", "1", true, false}));
    EXPECT_FALSE(first != map.Begin());
}

TEST(Iterator, ReachesAnEntryAppendedDuringTheWalk) {
    kivPropertyMap map;
    map.SetInt("a", 1, false);
    map.SetInt("b", 2, false);

    std::vector<std::string> walked;
    for (kivPropertyMap_Iterator at = map.Begin(); at != map.End(); ++at) {
        walked.push_back((*at).name);
        if (walked.back() == "b") {
            map.SetInt("late", 3, false);
        }
    }
    EXPECT_THAT(walked, ElementsAre("a", "b", "late"));
}

TEST(GetString, GivesTheTextAndBothMarks) {
    for (const auto& [user, string_only] : {std::pair(false, false), std::pair(false, true),
                                            std::pair(true, false), std::pair(true, true)}) {
        kivPropertyMap map;
        map.SetString("name", "text", user, string_only);
        std::string text;
        bool user_flag = !user;
        bool string_only_flag = !string_only;
        EXPECT_TRUE(map.GetString("name", text, &user_flag, &string_only_flag));
        EXPECT_EQ(text, "text");
        EXPECT_EQ(user_flag, user);
        EXPECT_EQ(string_only_flag, string_only);
    }
}

TEST(GetString, TakesANullForEitherMark) {
    kivPropertyMap map;
    map.SetString("name", "text", true, true);
    std::string text;
    bool flag = false;
    EXPECT_TRUE(map.GetString("name", text, nullptr, &flag));
    EXPECT_TRUE(flag);
    flag = false;
    EXPECT_TRUE(map.GetString("name", text, &flag, nullptr));
    EXPECT_TRUE(flag);
    EXPECT_TRUE(map.GetString("name", text, nullptr, nullptr));
}

TEST(GetString, LeavesItsOutputsWhenThereIsNoSuchEntry) {
    const kivPropertyMap map = map_of("other");
    for (const bool before : {false, true}) {
        std::string text = "preset";
        bool user_flag = before;
        bool string_only_flag = before;
        EXPECT_FALSE(map.GetString("missing", text, &user_flag, &string_only_flag));
        EXPECT_EQ(text, "preset");
        EXPECT_EQ(user_flag, before);
        EXPECT_EQ(string_only_flag, before);
    }
}

TEST(GetString, MayOverwriteTheTextThatHoldsTheName) {
    const kivPropertyMap map = map_of("text");
    std::string text = "name";
    EXPECT_TRUE(map.GetString(text.c_str(), text, nullptr, nullptr));
    EXPECT_EQ(text, "text");
}

// Calls one typed getter on a missing name and on a present one with and without a flag output.
template <typename value_type>
void expect_getter_rules(bool (kivPropertyMap::*getter)(const char*, value_type&, bool*) const,
                         value_type preset, const char* text, value_type expected) {
    kivPropertyMap map;
    value_type value = preset;
    bool flag = true;
    EXPECT_FALSE((map.*getter)("name", value, &flag));
    EXPECT_EQ(value, preset);
    EXPECT_TRUE(flag);
    EXPECT_FALSE((map.*getter)("name", value, nullptr));

    map.SetString("name", text, /*user_flag=*/true, /*string_only_flag=*/false);
    flag = false;
    EXPECT_TRUE((map.*getter)("name", value, &flag));
    EXPECT_EQ(value, expected);
    EXPECT_TRUE(flag);

    // The second mark, set here, is not what a typed getter gives.
    map.SetString("name", text, /*user_flag=*/false, /*string_only_flag=*/true);
    EXPECT_TRUE((map.*getter)("name", value, &flag));
    EXPECT_FALSE(flag);
    EXPECT_TRUE((map.*getter)("name", value, nullptr));
}

TEST(TypedGetters, GiveTheUserFlagAndLeaveTheirOutputsWithoutAnEntry) {
    expect_getter_rules<long long>(&kivPropertyMap::GetIn64, -3, "12", 12);
    expect_getter_rules<long>(&kivPropertyMap::GetLong, -3, "12", 12);
    expect_getter_rules<long>(&kivPropertyMap::GetTimet, -3, "12", 12);
    expect_getter_rules<int>(&kivPropertyMap::GetInt, -3, "12", 12);
    expect_getter_rules<float>(&kivPropertyMap::GetFloat, -3, "12.5", 12.5F);
    expect_getter_rules<bool>(&kivPropertyMap::GetBool, true, "0", false);
    expect_getter_rules<bool>(&kivPropertyMap::GetBool, false, "1", true);
}

TEST(TypedGetters, GiveZeroForATextThatIsNoNumber) {
    for (const char* text : {"abc", "", " ", "-", "+", ".", "--1", "- 1", "\xFF", "x1"}) {
        SCOPED_TRACE(text);
        const kivPropertyMap map = map_of(text);
        long long number64 = 7;
        long number = 7;
        long time = 7;
        int small = 7;
        float fraction = 7;
        EXPECT_TRUE(map.GetIn64("name", number64, nullptr));
        EXPECT_TRUE(map.GetLong("name", number, nullptr));
        EXPECT_TRUE(map.GetTimet("name", time, nullptr));
        EXPECT_TRUE(map.GetInt("name", small, nullptr));
        EXPECT_TRUE(map.GetFloat("name", fraction, nullptr));
        EXPECT_EQ(number64, 0);
        EXPECT_EQ(number, 0);
        EXPECT_EQ(time, 0);
        EXPECT_EQ(small, 0);
        EXPECT_EQ(fraction, 0.0F);
    }
}

TEST(TypedGetters, SkipWhiteSpaceAndStopAtTheFirstByteThatDoesNotFit) {
    const std::pair<const char*, int> cases[] = {
        {"12", 12},
        {"-12", -12},
        {"+12", 12},
        {" \t\n\v\f\r12", 12},
        {"12x", 12},
        {"12 34", 12},
        {"1,000", 1},
        {"1.9", 1},
        {"0x10", 0},
        {"010", 10},
        {"  -12 days", -12},
        {"1e3", 1},
        {"2147483647", INT_MAX},
    };
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text);
        const kivPropertyMap map = map_of(text);
        long long number64 = 7;
        long number = 7;
        long time = 7;
        int small = 7;
        EXPECT_TRUE(map.GetIn64("name", number64, nullptr));
        EXPECT_TRUE(map.GetLong("name", number, nullptr));
        EXPECT_TRUE(map.GetTimet("name", time, nullptr));
        EXPECT_TRUE(map.GetInt("name", small, nullptr));
        EXPECT_EQ(number64, expected);
        EXPECT_EQ(number, expected);
        EXPECT_EQ(time, expected);
        EXPECT_EQ(small, expected);
    }
}

TEST(TypedGetters, EndTheNumberAtAZeroByte) {
    const kivPropertyMap map = map_of(std::string("12\0"
                                                  "34",
                                                  5));
    int number = 0;
    EXPECT_TRUE(map.GetInt("name", number, nullptr));
    EXPECT_EQ(number, 12);
}

TEST(GetIn64, GivesTheNearestNumberBeyondTheRange) {
    long long number = 0;
    EXPECT_TRUE(map_of("9223372036854775807").GetIn64("name", number, nullptr));
    EXPECT_EQ(number, LLONG_MAX);
    EXPECT_TRUE(map_of("9223372036854775808").GetIn64("name", number, nullptr));
    EXPECT_EQ(number, LLONG_MAX);
    EXPECT_TRUE(map_of("-99999999999999999999").GetIn64("name", number, nullptr));
    EXPECT_EQ(number, LLONG_MIN);
}

TEST(GetLong, GivesTheNearestNumberBeyondTheRange) {
    long number = 0;
    EXPECT_TRUE(map_of("99999999999999999999").GetLong("name", number, nullptr));
    EXPECT_EQ(number, LONG_MAX);
    EXPECT_TRUE(map_of("-99999999999999999999").GetTimet("name", number, nullptr));
    EXPECT_EQ(number, LONG_MIN);
}

TEST(GetInt, GivesTheLowBitsOfANumberBeyondTheRange) {
    if (sizeof(long) == sizeof(int)) {
        GTEST_SKIP() << "a long is no longer than an int here";
    }
    int number = 0;
    EXPECT_TRUE(map_of("4294967301").GetInt("name", number, nullptr));
    EXPECT_EQ(number, 5);
    EXPECT_TRUE(map_of("2147483648").GetInt("name", number, nullptr));
    EXPECT_EQ(number, INT_MIN);
    EXPECT_TRUE(map_of("99999999999999999999").GetInt("name", number, nullptr));
    EXPECT_EQ(number, -1);
}

TEST(GetFloat, ReadsWhatAtofReads) {
    const std::pair<const char*, float> cases[] = {
        {"0.5", 0.5F},    {"-.25", -0.25F},          {" +1e3x", 1000.0F}, {"3,7", 3.0F},
        {"0x1p4", 16.0F}, {"16777217", 16777216.0F}, {"1e-400", 0.0F},
    };
    for (const auto& [text, expected] : cases) {
        SCOPED_TRACE(text);
        float value = 7;
        EXPECT_TRUE(map_of(text).GetFloat("name", value, nullptr));
        EXPECT_EQ(value, expected);
    }
}

TEST(GetFloat, GivesInfinityBeyondTheRange) {
    float value = 0;
    for (const char* text : {"1e39", "1e400", "inf", "infinity"}) {
        EXPECT_TRUE(map_of(text).GetFloat("name", value, nullptr));
        EXPECT_EQ(value, std::numeric_limits<float>::infinity()) << text;
    }
    EXPECT_TRUE(map_of("-1e39").GetFloat("name", value, nullptr));
    EXPECT_EQ(value, -std::numeric_limits<float>::infinity());
    EXPECT_TRUE(map_of("nan").GetFloat("name", value, nullptr));
    EXPECT_TRUE(std::isnan(value));
}

// Makes a locale with a decimal comma and makes it the C library's; false where that fails.
bool enter_locale_with_comma(const kiv_test::temp_directory& directory) {
    kiv_test::write_file(directory.file("source"), "LC_NUMERIC\n"
                                                   "decimal_point \",\"\n"
                                                   "thousands_sep \"\"\n"
                                                   "grouping -1\n"
                                                   "END LC_NUMERIC\n");
    const std::string command = "localedef -c --no-archive -i " + directory.file("source") + ' ' +
                                directory.file("comma") + " >" + directory.file("log") + " 2>&1";
    // It warns of the categories that the source leaves out; what it made is what counts.
    static_cast<void>(std::system(command.c_str()));  // NOLINT: there is one thread, and no input
    ::setenv("LOCPATH", directory.path().c_str(), 1); // NOLINT(concurrency-mt-unsafe): one thread
    // NOLINTNEXTLINE(concurrency-mt-unsafe): one thread
    return std::setlocale(LC_NUMERIC, "comma") != nullptr && std::atof("0,5") == 0.5;
}

TEST(GetFloat, ReadsAPointUnderALocaleWithADecimalComma) {
    const kiv_test::temp_directory directory;
    if (!enter_locale_with_comma(directory)) {
        GTEST_SKIP() << "no locale can be made";
    }
    kivPropertyMap map;
    map.SetFloat("name", 0.5F, false);
    EXPECT_EQ(text_of(map, "name"), "0.500000");
    float value = 0;
    EXPECT_TRUE(map.GetFloat("name", value, nullptr));
    EXPECT_EQ(value, 0.5F);
    EXPECT_TRUE(map_of("3,75").GetFloat("name", value, nullptr));
    EXPECT_EQ(value, 3.0F);
}

TEST(GetBool, IsFalseOnlyForTheText0) {
    for (const char* text : {"1", "true", "false", "", "00", " 0", "0 ", "no", "-0"}) {
        bool value = false;
        EXPECT_TRUE(map_of(text).GetBool("name", value, nullptr));
        EXPECT_TRUE(value) << text;
    }
    bool value = true;
    EXPECT_TRUE(map_of("0").GetBool("name", value, nullptr));
    EXPECT_FALSE(value);
    EXPECT_TRUE(map_of(std::string("0\0", 2)).GetBool("name", value, nullptr));
    EXPECT_TRUE(value);
}

TEST(SetString, ReplacesTextAndBothMarksInPlace) {
    kivPropertyMap map;
    map.SetString("a", "1", true, true);
    map.SetString("b", "2", false, false);
    map.SetString("a", "3", false, false);
    map.SetString("b", "4", true, true);

    EXPECT_THAT(entries_of(map),
                ElementsAre(item_attr{"a", "3", false, false}, item_attr{"b", "4", true, true}));
}

TEST(TypedSetters, StoreTheirTextAndTheUserFlag) {
    kivPropertyMap map;
    long time = -1;
    map.SetInt("int", -5, true);
    map.SetLong("long", LONG_MAX, false);
    map.SetInt64("int64", LLONG_MIN, true);
    map.SetTimet("time", &time, false);
    map.SetFloat("float", 0.5F, true);
    map.SetBool("yes", true, false);
    map.SetBool("no", false, true);

    EXPECT_THAT(entries_of(map),
                ElementsAre(item_attr{"int", "-5", true, false},
                            item_attr{"long", std::to_string(LONG_MAX), false, false},
                            item_attr{"int64", "-9223372036854775808", true, false},
                            item_attr{"time", "-1", false, false},
                            item_attr{"float", "0.500000", true, false},
                            item_attr{"yes", "1", false, false},
                            item_attr{"no", "0", true, false}));
}

TEST(TypedSetters, ClearTheMarkOfSetStringAndKeepThePlace) {
    long time = 8;
    kivPropertyMap map;
    const auto expect_first = [&map](const char* text, bool user_flag) {
        const item_attr first = *map.Begin();
        EXPECT_EQ(first, (item_attr{"A", text, user_flag, false}));
        EXPECT_EQ(map.GetSize(), 2);
        map.SetString("A", "text", true, true);
    };
    map.SetString("A", "text", true, true);
    map.SetString("B", "text", true, true);

    map.SetInt("A", 5, false);
    expect_first("5", false);
    map.SetLong("A", 6, true);
    expect_first("6", true);
    map.SetInt64("A", 7, false);
    expect_first("7", false);
    map.SetTimet("A", &time, true);
    expect_first("8", true);
    map.SetFloat("A", 9.25F, false);
    expect_first("9.250000", false);
    map.SetBool("A", false, true);
    expect_first("0", true);
}

TEST(SetTimet, ReadsTheTimeThroughItsPointerOnce) {
    kivPropertyMap map;
    long time = LONG_MAX;
    map.SetTimet("time", &time, false);
    EXPECT_EQ(time, LONG_MAX);
    time = 0;
    EXPECT_EQ(text_of(map, "time"), std::to_string(LONG_MAX));
    EXPECT_TRUE(map.GetTimet("time", time, nullptr));
    EXPECT_EQ(time, LONG_MAX);
}

TEST(SetFloat, WritesSixDigitsAfterThePoint) {
    const std::pair<float, const char*> cases[] = {
        {0.0F, "0.000000"},
        {-0.0F, "-0.000000"},
        {0.1F, "0.100000"},
        {1e-7F, "0.000000"},
        {-2.5F, "-2.500000"},
        {16777216.0F, "16777216.000000"},
        {std::numeric_limits<float>::infinity(), "inf"},
    };
    for (const auto& [value, text] : cases) {
        kivPropertyMap map;
        map.SetFloat("name", value, false);
        EXPECT_EQ(text_of(map, "name"), text);
    }
}

} // namespace
