#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace KivFramework::internal {

/// Collects pairs of texts and builds an ordered map of them at once.
///
/// Entered one by one, pairs in no particular order cost a walk down the map each, to nodes that
/// lie in memory as the pairs came. Sorted first, they go in at the map's end, and whoever walks
/// the map afterwards walks through memory in one direction.
class pair_sorter {
public:
    /// Copies a pair, of texts shorter than 4 GiB.
    void add(std::string_view key, std::string_view value);

    /// Fills an empty map; of several pairs with one key the first one counts.
    void move_to(std::map<std::string, std::string>& out);

private:
    struct pair {
        std::uint64_t key_part; // the key's bytes after the part common to all, as a number
        std::size_t offset;     // of the key in `bytes_`; its value follows
        std::uint32_t key_size;
        std::uint32_t value_size;
    };

    std::string_view key_of(const pair& entry) const;
    void sort();
    void sort_by_key_part();

    std::string bytes_;
    std::vector<pair> pairs_;
    bool sorted_ = true;
};

} // namespace KivFramework::internal
