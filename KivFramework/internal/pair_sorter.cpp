#include "KivFramework/internal/pair_sorter.h"

#include <algorithm>
#include <array>
#include <numeric>

namespace KivFramework::internal {
namespace {

// The first bytes as a number that orders as they do.
std::uint64_t leading_bytes(std::string_view text) {
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < sizeof(number); ++i) {
        number = number << 8U | (i < text.size() ? static_cast<unsigned char>(text[i]) : 0U);
    }
    return number;
}

std::size_t common_prefix(std::string_view left, std::string_view right) {
    const auto [end, other] = std::mismatch(left.begin(), left.end(), right.begin(), right.end());
    return static_cast<std::size_t>(end - left.begin());
}

} // namespace

std::string_view pair_sorter::key_of(const pair& entry) const {
    return std::string_view(bytes_).substr(entry.offset, entry.key_size);
}

void pair_sorter::add(std::string_view key, std::string_view value) {
    sorted_ = sorted_ && (pairs_.empty() || key_of(pairs_.back()) < key);
    pairs_.push_back({0, bytes_.size(), static_cast<std::uint32_t>(key.size()),
                      static_cast<std::uint32_t>(value.size())});
    bytes_.append(key).append(value);
}

// Sorts by `key_part`, one byte of it after the other from the last to the first; pairs with equal
// parts keep their order. Bytes that are the same in all parts cost nothing.
void pair_sorter::sort_by_key_part() {
    constexpr unsigned int digits = sizeof(pair::key_part);
    std::array<std::array<std::size_t, 256>, digits> counts{};
    for (const pair& entry : pairs_) {
        for (unsigned int digit = 0; digit < digits; ++digit) {
            ++counts[digit][entry.key_part >> 8U * digit & 0xFFU];
        }
    }
    std::vector<pair> sorted(pairs_.size());
    for (unsigned int digit = 0; digit < digits; ++digit) {
        auto& positions = counts[digit];
        if (positions[pairs_.front().key_part >> 8U * digit & 0xFFU] == pairs_.size()) {
            continue;
        }
        std::exclusive_scan(positions.begin(), positions.end(), positions.begin(), std::size_t{0});
        for (const pair& entry : pairs_) {
            sorted[positions[entry.key_part >> 8U * digit & 0xFFU]++] = entry;
        }
        pairs_.swap(sorted);
    }
}

void pair_sorter::sort() {
    const std::string_view any_key = key_of(pairs_.front());
    std::size_t common = any_key.size();
    for (const pair& entry : pairs_) {
        common = common_prefix(any_key.substr(0, common), key_of(entry));
    }
    for (pair& entry : pairs_) {
        entry.key_part = leading_bytes(key_of(entry).substr(common));
    }
    sort_by_key_part();

    const auto by_key = [this](const pair& left, const pair& right) {
        return key_of(left) < key_of(right);
    };
    for (auto first = pairs_.begin(); first != pairs_.end();) {
        const auto last = std::find_if(first + 1, pairs_.end(), [first](const pair& entry) {
            return entry.key_part != first->key_part;
        });
        if (last - first > 1) {
            std::stable_sort(first, last, by_key);
        }
        first = last;
    }
}

void pair_sorter::move_to(std::map<std::string, std::string>& out) {
    // In the order of the keys the bytes lie scattered, so they are asked for ahead of their use.
    constexpr std::size_t ahead = 8;

    if (!sorted_) {
        sort();
    }
    for (std::size_t i = 0; i < pairs_.size(); ++i) {
        if (i + ahead < pairs_.size()) {
            __builtin_prefetch(bytes_.data() + pairs_[i + ahead].offset);
        }
        const pair& entry = pairs_[i];
        out.emplace_hint(
            out.end(), key_of(entry),
            std::string_view(bytes_).substr(entry.offset + entry.key_size, entry.value_size));
    }
}

} // namespace KivFramework::internal
