#pragma once

#include <cstddef>
#include <random>
#include <string>

namespace kiv_test {

/// Makes configuration texts, keys and values in which everything unusual is common: few names, so
/// that sections and keys repeat, and values that hold lines, keys and headers themselves.
class config_generator {
public:
    explicit config_generator(unsigned int seed) : random_(seed) {}

    /// A number from 0 to `limit` - 1.
    std::size_t below(std::size_t limit) {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_);
    }

    std::string section() { return one_of(sections); }
    std::string key() { return one_of(keys); }

    /// A value: mostly a short or long word, sometimes with a key, a header or lines inside.
    std::string value() {
        switch (below(8)) {
        case 0:
            return word(30) + key() + " = " + word(6);
        case 1:
            return word(6) + "\n" + line();
        case 2:
            return lines(3);
        case 3:
            return word(12) + "[" + section() + "]" + word(3);
        default:
            return word(24);
        }
    }

    /// A text of up to `max_lines` lines, the last one without a line feed half of the time.
    std::string text(std::size_t max_lines) {
        return lines(below(max_lines + 1)) + (below(2) == 0 ? "" : line());
    }

private:
    static constexpr const char* sections[] = {"a", "B",         "a b", "a]b",
                                               "",  "_default_", "net", "a]"};
    static constexpr const char* keys[] = {"k",  "K",   "key", "k k", "k ", "# k", "",
                                           "[a", "b]k", "x",   "ey",  " k", "k=x"};

    template <std::size_t count>
    std::string one_of(const char* const (&choices)[count]) {
        return choices[below(count)];
    }

    std::string spaces() {
        std::string made(below(3) == 0 ? below(4) : 0, ' ');
        return made;
    }

    std::string word(std::size_t max_length) {
        std::string made;
        for (std::size_t length = below(max_length + 1); made.size() < length;) {
            made += "kK =#[]ab\tx"[below(11)];
        }
        return made;
    }

    std::string line() {
        switch (below(12)) {
        case 0:
        case 1:
            return spaces() + "[" + section() + "]" + (below(3) == 0 ? word(5) : "");
        case 2:
            return "#" + word(9);
        case 3:
            return spaces();
        case 4:
            return word(9);
        case 5:
            return "[" + word(4);
        case 6:
            return spaces() + key() + spaces() + "=" + word(9) + "\r";
        default:
            return spaces() + key() + spaces() + (below(9) == 0 ? "" : "=") + word(12);
        }
    }

    std::string lines(std::size_t count) {
        std::string made;
        for (std::size_t i = 0; i < count; ++i) {
            made += line() + "\n";
        }
        return made;
    }

    std::mt19937 random_;
};

} // namespace kiv_test
