#include "KivFramework/internal/pair_sorter.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using KivFramework::internal::pair_sorter;
using pairs = std::vector<std::pair<std::string, std::string>>;

std::map<std::string, std::string> sorted(const pairs& given) {
    pair_sorter sorter;
    for (const auto& [key, value] : given) {
        sorter.add(key, value);
    }
    std::map<std::string, std::string> out;
    sorter.move_to(out);
    return out;
}

TEST(PairSorter, MakesNothingOfNothing) {
    EXPECT_TRUE(sorted({}).empty());
}

TEST(PairSorter, KeepsTheFirstOfSeveralPairsWithOneKey) {
    const std::map<std::string, std::string> expected{{"a", "1"}, {"b", "3"}};
    EXPECT_EQ(sorted({{"a", "1"}, {"a", "2"}, {"b", "3"}}), expected);
    EXPECT_EQ(sorted({{"b", "3"}, {"a", "1"}, {"b", "4"}, {"a", "2"}}), expected);
}

TEST(PairSorter, OrdersBytesAsUnsignedAndPrefixesFirst) {
    const std::map<std::string, std::string> expected{
        {"", "e"}, {"a", "p"}, {"ab", "q"}, {"a\x80", "r"}, {"\xff", "s"}};
    EXPECT_EQ(sorted({{"\xff", "s"}, {"a\x80", "r"}, {"ab", "q"}, {"a", "p"}, {"", "e"}}),
              expected);
}

TEST(PairSorter, FillsTheMapThatInsertionOneByOneWouldFill) {
    std::mt19937 random(1);
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        // Long common beginnings, differences far behind them, and keys that repeat.
        const std::string prefix(random() % 20, 'p');
        pairs given;
        for (std::size_t count = random() % 300; given.size() < count;) {
            std::string key = prefix;
            for (std::size_t length = random() % 14; length > 0; --length) {
                key += "ab\xc3"[random() % 3];
            }
            given.emplace_back(key, std::to_string(given.size()));
        }
        EXPECT_EQ(sorted(given), (std::map<std::string, std::string>(given.begin(), given.end())));
    }
}

} // namespace
