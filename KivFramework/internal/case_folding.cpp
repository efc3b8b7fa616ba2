#include "KivFramework/internal/case_folding.h"

#include <algorithm>
#include <cctype>
#include <cstddef>

namespace KivFramework::internal {

case_folding::case_folding() {
    for (std::size_t byte = 0; byte < lower_.size(); ++byte) {
        lower_[byte] = static_cast<unsigned char>(std::tolower(static_cast<int>(byte)));
    }
}

void case_folding::append_folded(std::string& out, std::string_view text) const {
    const std::size_t size = out.size();
    out.resize(size + text.size());
    std::transform(text.begin(), text.end(), out.begin() + static_cast<std::ptrdiff_t>(size),
                   [this](char byte) { return static_cast<char>(folded(byte)); });
}

bool case_folding::equal(std::string_view left, std::string_view right) const {
    return left.size() == right.size() && begins_with(left, right);
}

bool case_folding::begins_with(std::string_view text, std::string_view prefix) const {
    return text.starts_with(prefix) ||
           (text.size() >= prefix.size() &&
            std::equal(prefix.begin(), prefix.end(), text.begin(),
                       [this](char left, char right) { return folded(left) == folded(right); }));
}

std::uint32_t case_folding::hash(std::string_view text) const {
    constexpr std::uint64_t multiplier = 0x9E3779B97F4A7C15U;
    std::uint64_t hash = text.size();
    while (!text.empty()) {
        const std::string_view part = text.substr(0, sizeof(hash));
        text.remove_prefix(part.size());
        std::uint64_t number = 0;
        for (const char byte : part) {
            number = number << 8U | folded(byte);
        }
        hash = (hash ^ number) * multiplier;
        hash ^= hash >> 32U;
    }
    return static_cast<std::uint32_t>(hash);
}

} // namespace KivFramework::internal
