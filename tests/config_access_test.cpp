// Typed access to the settings of a configuration manager.

#include "KivFramework/KivConfigFile.h"

#include "tests/support/temp_directory.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <map>
#include <string>
#include <type_traits>

namespace {

using namespace KivFramework;

kivConfigManager manager_with(const std::string& composed_key, const std::string& value) {
    kivConfigManager manager;
    manager.values[composed_key] = value;
    return manager;
}

TEST(kivConfigManager, HoldsTheValuesAndThePathAndNothingElse) {
    kivConfigManager manager;
    const auto* const record = reinterpret_cast<const char*>(&manager);
    EXPECT_EQ(reinterpret_cast<const char*>(&manager.values), record);
    constexpr std::size_t values_size = sizeof(std::map<std::string, std::string>);
    EXPECT_EQ(reinterpret_cast<const char*>(&manager.filePath), record + values_size);
    EXPECT_EQ(sizeof(manager), values_size + sizeof(std::string));
    EXPECT_TRUE((std::is_same_v<decltype(manager.values), std::map<std::string, std::string>>));
    EXPECT_TRUE((std::is_same_v<decltype(manager.filePath), std::string>));
    EXPECT_TRUE(manager.values.empty());
    EXPECT_EQ(manager.filePath, "");
}

TEST(GetConfigValue, FindsSectionAndKeyWhateverTheirCase) {
    kivConfigManager manager = manager_with("net#port", "80");
    EXPECT_EQ(GetConfigValue(&manager, "Net", "Port", 1), 80);
    EXPECT_EQ(GetConfigValue(&manager, "NET", "PORT", 1L), 80L);
    EXPECT_EQ(GetConfigValue(&manager, "net", "port", std::string("1")), "80");
}

TEST(GetConfigValue, FindsWhatStandsBeforeAnySectionUnderDefault) {
    const kiv_test::temp_directory directory;
    const std::string path = directory.file("agent.conf");
    kiv_test::write_file(path, "Port = 80\n");
    kivConfigManager manager;
    ASSERT_TRUE(LoadConfigFile(&manager, path.c_str()));
    EXPECT_EQ(GetConfigValue(&manager, "_default_", "port", 1), 80);
}

TEST(GetConfigValue, ReturnsTheDefaultUnchangedWhenMissing) {
    kivConfigManager manager;
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", std::string("x\ty\r\n ")), "x\ty\r\n ");
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", -7), -7);
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", LONG_MIN), LONG_MIN);
}

TEST(GetConfigValue, DropsLineFeedsCarriageReturnsAndTabsFromTextsOnly) {
    kivConfigManager manager = manager_with("a#b", "\tx \r\ny\t z  \r");
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", std::string()), "x y z  ");
    EXPECT_EQ(manager.values["a#b"], "\tx \r\ny\t z  \r");

    // Without the tab the digits would be one number.
    manager.values["a#b"] = "12\t34\r";
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", 0), 12);
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", 0L), 12L);
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", std::string()), "1234");
}

TEST(GetConfigValue, ReadsNumbersAsAtoiDoes) {
    const struct {
        const char* text;
        long number;
    } cases[] = {
        {"8080", 8080}, {"8080\r", 8080}, {"  42", 42},  {"\t\n 42 43", 42}, {"-5", -5},
        {"+5", 5},      {"- 5", 0},       {"12abc", 12}, {"0x10", 0},        {"010", 10},
        {"3.9", 3},     {"", 0},          {"abc", 0},    {"true", 0},
    };
    for (const auto& [text, number] : cases) {
        SCOPED_TRACE(text);
        kivConfigManager manager = manager_with("a#b", text);
        EXPECT_EQ(GetConfigValue(&manager, "a", "b", 99), number);
        EXPECT_EQ(GetConfigValue(&manager, "a", "b", 99L), number);
    }
}

TEST(GetConfigValue, GivesZeroForAnEmptyOrNonNumericValueNotTheDefault) {
    kivConfigManager manager = manager_with("a#b", "");
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", 99), 0);
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", 99L), 0L);
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", std::string("default")), "");
}

TEST(GetConfigValue, GivesAnIntTheLow32BitsOfALongerNumber) {
    if (sizeof(long) == sizeof(int)) {
        GTEST_SKIP() << "a long is no longer than an int here";
    }
    kivConfigManager manager = manager_with("a#b", "4294967298");
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", 0), 2);
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", 0L), static_cast<long>(4294967298));
    manager.values["a#b"] = "2147483648";
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", 0), INT_MIN);
}

TEST(GetConfigValue, GivesTheNearestLongForANumberBeyondLong) {
    // An int has the low 32 bits of that, and all of them where a long has no more.
    const bool same_size = sizeof(long) == sizeof(int);
    kivConfigManager manager = manager_with("a#b", "99999999999999999999");
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", 0), same_size ? INT_MAX : -1);
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", 0L), LONG_MAX);
    manager.values["a#b"] = "-99999999999999999999";
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", 0), same_size ? INT_MIN : 0);
    EXPECT_EQ(GetConfigValue(&manager, "a", "b", 0L), LONG_MIN);
}

TEST(SetConfigValue, StoresUnderTheLowerCaseKeyAndKeepsTheCaseOfTheValue) {
    kivConfigManager manager;
    EXPECT_TRUE(SetConfigValue(&manager, "Net", "Host", "Example.ORG"));
    EXPECT_EQ(manager.values, (std::map<std::string, std::string>{{"net#host", "Example.ORG"}}));
}

TEST(SetConfigValue, KeepsOnlyTheLastValueOfAKey) {
    kivConfigManager manager;
    EXPECT_TRUE(SetConfigValue(&manager, "a", "b", "first"));
    EXPECT_TRUE(SetConfigValue(&manager, "A", "B", "second"));
    EXPECT_EQ(manager.values, (std::map<std::string, std::string>{{"a#b", "second"}}));
}

TEST(SetConfigValue, StoresTheTextUnchanged) {
    kivConfigManager manager;
    SetConfigValue(&manager, "a", "b", "  x = y\n\t#z\r ");
    EXPECT_EQ(manager.values["a#b"], "  x = y\n\t#z\r ");
    SetConfigValue(&manager, "a", "b", "");
    EXPECT_EQ(manager.values["a#b"], "");
}

TEST(SetConfigValue, StoresNumbersAsDecimalText) {
    kivConfigManager manager;
    EXPECT_TRUE(SetConfigValue(&manager, "a", "int", -5));
    EXPECT_TRUE(SetConfigValue(&manager, "a", "least int", INT_MIN));
    EXPECT_TRUE(SetConfigValue(&manager, "a", "long", 2147483647L));
    EXPECT_TRUE(SetConfigValue(&manager, "a", "least long", LONG_MIN));
    EXPECT_EQ(manager.values["a#int"], "-5");
    EXPECT_EQ(manager.values["a#least int"], "-2147483648");
    EXPECT_EQ(manager.values["a#long"], "2147483647");
    EXPECT_EQ(manager.values["a#least long"], std::to_string(LONG_MIN));
}

TEST(SetConfigValue, ChangesMemoryOnlyUntilTheFileIsSaved) {
    const kiv_test::temp_directory directory;
    const std::string path = directory.file("agent.conf");
    kiv_test::write_file(path, "[net]\nport = 80\n");
    kivConfigManager manager;
    ASSERT_TRUE(LoadConfigFile(&manager, path.c_str()));
    SetConfigValue(&manager, "net", "port", 81);
    EXPECT_EQ(kiv_test::read_file(path), "[net]\nport = 80\n");
    ASSERT_TRUE(LoadConfigFile(&manager, path.c_str()));
    EXPECT_EQ(GetConfigValue(&manager, "net", "port", 0), 80);
}

} // namespace
