#pragma once

#include <cctype>
#include <map>
#include <optional>
#include <string>

namespace kiv_test {

/// The expansion of `%NAME%` references as it is told: on one working text, searched from its
/// beginning again after every step. Nothing when it has not ended after `step_limit` steps.
inline std::optional<std::string>
expand_percent_references_model(std::string text, const std::map<std::string, std::string>& values,
                                int step_limit) {
    const auto fold = [](std::string name) {
        for (char& c : name) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        return name;
    };
    const auto value_of = [&](const std::string& name) -> std::string {
        for (const auto& [known, value] : values) {
            if (fold(known) == fold(name)) {
                return value;
            }
        }
        return "";
    };
    for (int step = 0; step < step_limit; ++step) {
        const std::size_t start = text.find('%');
        if (start == std::string::npos) {
            return text;
        }
        std::size_t end = text.find('%', start + 1);
        if (end == std::string::npos) {
            end = text.size() - 1;
        }
        const std::size_t span = end - start + 1;
        if (end - start <= 1) {
            text.erase(end, span);
            continue;
        }
        text.replace(start, span, value_of(text.substr(start + 1, end - start - 1)));
    }
    return std::nullopt;
}

} // namespace kiv_test
