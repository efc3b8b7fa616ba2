#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <span>
#include <vector>

namespace KivFramework::internal {

/// Finds the entries of a process list by pid and by parent without walking the list each time.
/// Entries are named by their positions in the list.
class process_index {
public:
    struct entry {
        int pid;
        int ppid;
    };

    explicit process_index(const std::vector<entry>& entries)
        : by_pid_(sorted_by(&entry::pid, entries)), by_ppid_(sorted_by(&entry::ppid, entries)) {}

    /// The last entry with that pid, if there is one.
    std::optional<std::size_t> last_with_pid(int pid) const {
        const std::span<const std::size_t> found = by_pid_.find(pid);
        if (found.empty()) {
            return std::nullopt;
        }
        return found.back();
    }

    /// The entries whose parent is `pid`, in list order.
    std::span<const std::size_t> children_of(int pid) const { return by_ppid_.find(pid); }

private:
    // Positions ordered by a key, those of equal keys in list order, beside the ordered keys.
    struct ordered_positions {
        std::vector<int> keys;
        std::vector<std::size_t> positions;

        std::span<const std::size_t> find(int key) const {
            const auto [first, last] = std::equal_range(keys.begin(), keys.end(), key);
            return std::span(positions).subspan(static_cast<std::size_t>(first - keys.begin()),
                                                static_cast<std::size_t>(last - first));
        }
    };

    static ordered_positions sorted_by(int entry::*key, const std::vector<entry>& entries) {
        ordered_positions sorted;
        sorted.positions.reserve(entries.size());
        for (std::size_t position = 0; position < entries.size(); ++position) {
            sorted.positions.push_back(position);
        }
        std::stable_sort(sorted.positions.begin(), sorted.positions.end(),
                         [&](std::size_t left, std::size_t right) {
                             return entries[left].*key < entries[right].*key;
                         });
        sorted.keys.reserve(entries.size());
        for (const std::size_t position : sorted.positions) {
            sorted.keys.push_back(entries[position].*key);
        }
        return sorted;
    }

    ordered_positions by_pid_;
    ordered_positions by_ppid_;
};

} // namespace KivFramework::internal
