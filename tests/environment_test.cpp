#include "KivFramework/KivProcesses.h"

#include "tests/support/endless_call.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <pwd.h>
#include <unistd.h>

namespace {

using namespace KivFramework::KivProcesses;
using variables = std::map<std::string, std::string>;

struct environment_deleter {
    void operator()(kivEnvironment* environment) const { DestroyEnvironment(environment); }
};
using owned_environment = std::unique_ptr<kivEnvironment, environment_deleter>;

owned_environment block_of(const variables& entries) {
    owned_environment block(CreateEnvironment(false));
    block->variables = entries;
    return block;
}

// Replaces the environment of the test's process until the end of the scope.
class process_environment {
public:
    explicit process_environment(std::vector<const char*> entries) : before_(::environ) {
        for (const char* entry : entries) {
            entries_.push_back(const_cast<char*>(entry));
        }
        entries_.push_back(nullptr);
        ::environ = entries_.data();
    }
    ~process_environment() { ::environ = before_; }
    process_environment(const process_environment&) = delete;
    process_environment& operator=(const process_environment&) = delete;

private:
    char** before_;
    std::vector<char*> entries_;
};

std::vector<std::string> strings_of(kivEnvironment* block) {
    char** array = kiv_get_environment(block);
    std::vector<std::string> strings;
    for (char** text = array; *text != nullptr; ++text) {
        strings.emplace_back(*text);
    }
    kiv_free_argv_array(array);
    return strings;
}

std::string block_text_of(kivEnvironment* block, std::size_t size) {
    const std::unique_ptr<char[]> text(GetEnvironmentAnsiString(block));
    return {text.get(), size};
}

TEST(KivEnvironment, KeepsItsDocumentedShape) {
    const kivEnvironment block;
    EXPECT_EQ(static_cast<const void*>(&block.variables), static_cast<const void*>(&block));
    EXPECT_EQ(sizeof(kivEnvironment), sizeof(variables));
}

TEST(CreateEnvironment, IsEmptyWithoutACopy) {
    EXPECT_THAT(block_of({})->variables, testing::IsEmpty());
}

TEST(CreateEnvironment, SplitsEachVariableAtItsFirstEqualsSign) {
    const process_environment process({"A=1", "B=x=y=", "EMPTY=", "=hidden"});
    const owned_environment block(CreateEnvironment(true));
    EXPECT_EQ(block->variables,
              (variables{{"A", "1"}, {"B", "x=y="}, {"EMPTY", ""}, {"", "hidden"}}));
}

TEST(CreateEnvironment, GivesAVariableWithoutAnEqualsSignAnEmptyValue) {
    const process_environment process({"LONE", "A=1"});
    const owned_environment block(CreateEnvironment(true));
    EXPECT_EQ(block->variables, (variables{{"LONE", ""}, {"A", "1"}}));
}

TEST(CreateEnvironment, TakesAnEmptyFirstStringForAnEntry) {
    const process_environment process({"", "A=1"});
    const owned_environment block(CreateEnvironment(true));
    EXPECT_EQ(block->variables, (variables{{"", ""}, {"A", "1"}}));
}

TEST(CreateEnvironment, KeepsTheFirstOfSeveralValuesOfOneName) {
    const process_environment process({"A=first", "A=second", "A"});
    const owned_environment block(CreateEnvironment(true));
    EXPECT_EQ(block->variables, (variables{{"A", "first"}}));
}

TEST(CreateEnvironment, KeepsNamesThatDifferInCaseApart) {
    const process_environment process({"Path=a", "PATH=b"});
    const owned_environment block(CreateEnvironment(true));
    EXPECT_EQ(block->variables, (variables{{"PATH", "b"}, {"Path", "a"}}));
}

TEST(CreateEnvironment, ExpandsNothingWhileCopying) {
    const process_environment process({"A=%B%", "B=1"});
    const owned_environment block(CreateEnvironment(true));
    EXPECT_EQ(block->variables, (variables{{"A", "%B%"}, {"B", "1"}}));
}

// No other thread runs here. NOLINTBEGIN(concurrency-mt-unsafe)
TEST(CreateEnvironment, SeesThePresentEnvironmentAfterSetenvAndPutenv) {
    static char added[] = "KIV_TEST_PUT=put";
    ::setenv("KIV_TEST_SET", "before", 1);
    ::setenv("KIV_TEST_SET", "a value that is longer than the one before", 1);
    ::putenv(added);
    ::setenv("KIV_TEST_LAST", "last", 1);
    const owned_environment block(CreateEnvironment(true));
    EXPECT_EQ(block->variables["KIV_TEST_SET"], "a value that is longer than the one before");
    EXPECT_EQ(block->variables["KIV_TEST_PUT"], "put");
    EXPECT_EQ(block->variables["KIV_TEST_LAST"], "last");
    EXPECT_EQ(block->variables["PATH"], ::getenv("PATH"));
    ::unsetenv("KIV_TEST_SET");
    ::unsetenv("KIV_TEST_PUT");
    ::unsetenv("KIV_TEST_LAST");
}
// NOLINTEND(concurrency-mt-unsafe)

TEST(CreateEnvironment, GivesAnEmptyBlockOfAClearedEnvironment) {
    char** before = ::environ;
    ::environ = nullptr;
    const owned_environment block(CreateEnvironment(true));
    ::environ = before;
    EXPECT_THAT(block->variables, testing::IsEmpty());
}

TEST(DestroyEnvironment, IgnoresNull) {
    DestroyEnvironment(nullptr);
}

TEST(GetEnvironmentValue, FindsANameInAnyCase) {
    const owned_environment block = block_of({{"PATH", "/bin"}});
    std::string value;
    EXPECT_TRUE(GetEnvironmentValue(block.get(), "path", value));
    EXPECT_EQ(value, "/bin");
}

TEST(GetEnvironmentValue, FindsTheFirstInMapOrderOfNamesThatDifferInCase) {
    const owned_environment block = block_of({{"Path", "second"}, {"PATH", "first"}});
    std::string value;
    EXPECT_TRUE(GetEnvironmentValue(block.get(), "Path", value));
    EXPECT_EQ(value, "first");
}

TEST(GetEnvironmentValue, EmptiesTheValueOfAnUnknownName) {
    const owned_environment block = block_of({{"PATH", "/bin"}});
    std::string value = "before";
    EXPECT_FALSE(GetEnvironmentValue(block.get(), "PAT", value));
    EXPECT_EQ(value, "");
    EXPECT_FALSE(GetEnvironmentValue(block.get(), "PATHS", value));
}

TEST(SetEnvironmentValue, ChangesTheValueAndKeepsTheStoredName) {
    const owned_environment block = block_of({{"HOME", "/root"}});
    SetEnvironmentValue(block.get(), "Home", "/x");
    EXPECT_EQ(block->variables, (variables{{"HOME", "/x"}}));
}

TEST(SetEnvironmentValue, ChangesOnlyTheFirstOfNamesThatDifferInCase) {
    const owned_environment block = block_of({{"Path", "b"}, {"PATH", "a"}});
    SetEnvironmentValue(block.get(), "Path", "new");
    EXPECT_EQ(block->variables, (variables{{"PATH", "new"}, {"Path", "b"}}));
}

TEST(SetEnvironmentValue, AddsANewNameAsGiven) {
    const owned_environment block = block_of({});
    SetEnvironmentValue(block.get(), "Some%Name", "1");
    EXPECT_EQ(block->variables, (variables{{"Some%Name", "1"}}));
}

TEST(SetEnvironmentValue, ExpandsTheValueAgainstTheBlockAsItWas) {
    const owned_environment block = block_of({{"B", "/usr"}});
    SetEnvironmentValue(block.get(), "A", "%B%/bin");
    EXPECT_EQ(block->variables["A"], "/usr/bin");
    SetEnvironmentValue(block.get(), "A", "%A%:/opt");
    EXPECT_EQ(block->variables["A"], "/usr/bin:/opt");
}

TEST(SetEnvironmentValue, ExpandsAnUnknownNameToNothing) {
    const owned_environment block = block_of({});
    SetEnvironmentValue(block.get(), "A", "%B%/bin");
    EXPECT_EQ(block->variables["A"], "/bin");
}

TEST(UnsetEnvironmentValue, RemovesTheVariableOfExactlyThatName) {
    const owned_environment block =
        block_of({{"A", ""}, {"HOME", ""}, {"HOMES", ""}, {"home", ""}});
    UnsetEnvironmentValue(block.get(), "HOME");
    EXPECT_EQ(block->variables, (variables{{"A", ""}, {"HOMES", ""}, {"home", ""}}));
}

TEST(UnsetEnvironmentValue, RemovesByPrefixInTheExactCaseWithAStar) {
    const owned_environment block = block_of(
        {{"A", "1"}, {"DYLD_INSERT_LIBRARIES", "1"}, {"DYLD_LIBRARY_PATH", "1"}, {"dyld_x", "1"}});
    UnsetEnvironmentValue(block.get(), "DYLD_*");
    EXPECT_EQ(block->variables, (variables{{"A", "1"}, {"dyld_x", "1"}}));
}

TEST(UnsetEnvironmentValue, TakesAStarElsewhereForACharacter) {
    const owned_environment block = block_of({{"A", ""}, {"X*Y", ""}, {"XAY", ""}});
    UnsetEnvironmentValue(block.get(), "X*Y");
    EXPECT_EQ(block->variables, (variables{{"A", ""}, {"XAY", ""}}));
}

TEST(UnsetEnvironmentValue, RemovesANamelessEntryWithAnEmptyPattern) {
    const owned_environment block = block_of({{"", "1"}, {"A", "1"}});
    UnsetEnvironmentValue(block.get(), "");
    EXPECT_EQ(block->variables, (variables{{"A", "1"}}));
}

TEST(UnsetEnvironmentValue, LeavesTheEntryThatBecomesFirstAfterARemoval) {
    const owned_environment block = block_of({{"LD_A", ""}, {"LD_B", ""}, {"LD_C", ""}, {"X", ""}});
    UnsetEnvironmentValue(block.get(), "LD_*");
    EXPECT_EQ(block->variables, (variables{{"LD_B", ""}, {"X", ""}}));
}

TEST(UnsetEnvironmentValue, GoesOnBehindTheFirstEntryAfterEveryRemoval) {
    const owned_environment block =
        block_of({{"A", ""}, {"LD_A", ""}, {"LD_B", ""}, {"LD_C", ""}, {"X", ""}});
    UnsetEnvironmentValue(block.get(), "LD_*");
    EXPECT_EQ(block->variables, (variables{{"A", ""}, {"X", ""}}));
}

TEST(UnsetEnvironmentValue, LeavesOneEntryOfSeveralToAPatternThatMatchesAll) {
    const owned_environment block = block_of({{"A", ""}, {"B", ""}, {"C", ""}, {"D", ""}});
    UnsetEnvironmentValue(block.get(), "*");
    EXPECT_EQ(block->variables, (variables{{"B", ""}}));
}

TEST(UnsetEnvironmentValue, LeavesABlockWithoutAMatchAlone) {
    const owned_environment block = block_of({{"A", "1"}});
    UnsetEnvironmentValue(block.get(), "B");
    UnsetEnvironmentValue(block.get(), "B*");
    EXPECT_EQ(block->variables, (variables{{"A", "1"}}));
    const owned_environment empty = block_of({});
    UnsetEnvironmentValue(empty.get(), "*");
    EXPECT_THAT(empty->variables, testing::IsEmpty());
}

TEST(UnsetEnvironmentValue, NeverReturnsFromEmptyingTheBlockAndUsesNoProcessor) {
    EXPECT_TRUE(kiv_test::waits_for_ever([] {
        const owned_environment block = block_of({{"IFS", " "}});
        UnsetEnvironmentValue(block.get(), "IFS");
    }));
}

TEST(ResolveEnvironmentString, FollowsTheReferenceRules) {
    const owned_environment block =
        block_of({{"HOM", "/h"}, {"A", "1"}, {"NEST", "<%a%>"}, {"E", ""}, {"P", "%"}});
    const struct {
        const char* text;
        const char* resolved;
    } cases[] = {
        {"", ""},
        {"plain", "plain"},
        {"%A%", "1"},
        {"x%a%y%A%z", "x1y1z"},
        {"%UNKNOWN%", ""},
        {"%E%", ""},
        {"50%", "50"},   // a lone sign at the end goes
        {"%HOME", "/h"}, // the last character closes
        {"%A", ""},      // too short to name anything: both characters go
        {"a%%b", "a"},   // the second sign takes b along
        {"a%%", "a"},    // nothing is behind it
        {"%%", ""},
        {"%%%A%", "1"},    // the third sign goes along, which leaves "%A%"
        {"%NEST%", "<1>"}, // references in values
        {"%P%A%", "1"},    // a sign in a value opens a reference
        {"%A%%HOM%", "1/h"},
    };
    for (const auto& [text, resolved] : cases) {
        EXPECT_EQ(ResolveEnvironmentString(block.get(), text), resolved) << text;
    }
}

TEST(ResolveEnvironmentString, FindsNamesInAnyCase) {
    const owned_environment block = block_of({{"Path", "b"}, {"PATH", "a"}});
    EXPECT_EQ(ResolveEnvironmentString(block.get(), "%path%"), "a");
}

TEST(ResolveEnvironmentString, NeverReturnsFromAValueThatRefersToItselfAndUsesNoProcessor) {
    for (const char* value : {"%A%", "x%A%", "%A%x", "%b%"}) {
        EXPECT_TRUE(kiv_test::waits_for_ever([value] {
            const owned_environment block = block_of({{"A", value}, {"B", "%a%"}});
            ResolveEnvironmentString(block.get(), "%A%");
        })) << value;
    }
}

TEST(GetEnvironmentAnsiString, IsOneNulForAnEmptyBlock) {
    EXPECT_EQ(block_text_of(block_of({}).get(), 1), std::string(1, '\0'));
}

TEST(GetEnvironmentAnsiString, EndsEachAssignmentAndTheWholeWithANul) {
    using namespace std::string_literals;
    EXPECT_EQ(block_text_of(block_of({{"A", "1"}}).get(), 5), "A=1\0\0"s);
    EXPECT_EQ(block_text_of(block_of({{"B", ""}, {"A", "1"}}).get(), 8), "A=1\0B=\0\0"s);
}

TEST(GetEnvironmentAnsiString, LeavesNamelessEntriesOutButCountsThem) {
    using namespace std::string_literals;
    // All 9 counted bytes belong to the buffer, which the address sanitizer watches.
    EXPECT_EQ(block_text_of(block_of({{"", "xy"}, {"A", "1"}}).get(), 9), "A=1\0\0\0\0\0\0"s);
}

TEST(GetEnvironmentArray, HoldsTheAssignmentsInMapOrder) {
    EXPECT_EQ(strings_of(block_of({{"b", "2"}, {"B", ""}, {"A", "x=y"}}).get()),
              (std::vector<std::string>{"A=x=y", "B=", "b=2"}));
}

TEST(GetEnvironmentArray, HoldsOnlyTheTerminatorForAnEmptyBlock) {
    EXPECT_THAT(strings_of(block_of({}).get()), testing::IsEmpty());
}

TEST(GetEnvironmentArray, IncludesNamelessEntries) {
    EXPECT_EQ(strings_of(block_of({{"", "value"}}).get()), (std::vector<std::string>{"=value"}));
}

TEST(GetEnvironmentArray, StaysValidAfterTheBlockIsDestroyed) {
    owned_environment block = block_of({{"A", "1"}});
    char** array = kiv_get_environment(block.get());
    block.reset();
    EXPECT_STREQ(array[0], "A=1");
    EXPECT_EQ(array[1], nullptr);
    kiv_free_argv_array(array);
}

TEST(PurgeEnvironment, RemovesTheSubvertingVariablesAndSetsTheUsersOwn) {
    const passwd* user = ::getpwnam("root"); // NOLINT(concurrency-mt-unsafe): no other thread here
    ASSERT_NE(user, nullptr);
    const owned_environment block = block_of({{"AAA", "stays"},     {"IFS", "x"},
                                              {"CDPATH", "x"},      {"LOCALDOMAIN", "x"},
                                              {"RES_OPTIONS", "x"}, {"HOSTALIASES", "x"},
                                              {"NLSPATH", "x"},     {"PATH_LOCALE", "x"},
                                              {"LD_PRELOAD", "x"},  {"LD_LIBRARY_PATH", "x"},
                                              {"_RLD_LIST", "x"},   {"DYLD_X", "x"},
                                              {"TERMINFO", "x"},    {"TERMINFO_DIRS", "x"},
                                              {"TERMPATH", "x"},    {"TERMCAP", "x"},
                                              {"ENV", "x"},         {"BASH_ENV", "x"},
                                              {"TERM", "stays"},    {"ENVY", "stays"},
                                              {"ld_x", "stays"},    {"Home", "x"}});
    ImpersonateUser_PurgeEnvironment(block.get(), "root");
    EXPECT_EQ(block->variables, (variables{{"AAA", "stays"},
                                           {"TERM", "stays"},
                                           {"ENVY", "stays"},
                                           {"ld_x", "stays"},
                                           {"BASH_ENV", user->pw_dir},
                                           {"Home", user->pw_dir},
                                           {"SHELL", user->pw_shell},
                                           {"LOGNAME", "root"},
                                           {"USER", "root"}}));
}

TEST(PurgeEnvironment, RemovesInItsOrderWithTheWalkOfUnset) {
    const owned_environment block = block_of({{"IFS", ""}, {"LD_A", ""}, {"LD_B", ""}, {"X", ""}});
    ImpersonateUser_PurgeEnvironment(block.get(), "root");
    // IFS goes first. Then LD_A is the first entry; it goes, and LD_B, first now, is passed over.
    EXPECT_EQ(block->variables.count("LD_A"), 0U);
    EXPECT_EQ(block->variables.count("LD_B"), 1U);
}

TEST(PurgeEnvironment, LeavesTheBlockAloneForAnUnknownUser) {
    const owned_environment block = block_of({{"IFS", "x"}, {"LD_A", "y"}});
    ImpersonateUser_PurgeEnvironment(block.get(), "kiv-no-such-user");
    ImpersonateUser_PurgeEnvironment(block.get(), nullptr);
    EXPECT_EQ(block->variables, (variables{{"IFS", "x"}, {"LD_A", "y"}}));
}

TEST(PurgeEnvironment, NeverReturnsFromABlockThatARemovalEmpties) {
    EXPECT_TRUE(kiv_test::waits_for_ever([] {
        const owned_environment block = block_of({{"IFS", " "}});
        ImpersonateUser_PurgeEnvironment(block.get(), "root");
    }));
}

} // namespace
