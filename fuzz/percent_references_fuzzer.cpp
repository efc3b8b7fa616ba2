// Expands a text with three variables and compares the result with that of the literal model.
//
// An input is the values of a, b and ab as lines, and the text.

#include "KivFramework/internal/percent_references.h"

#include "tests/oracle/percent_references_model.h"

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <optional>
#include <sstream>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Expansions may double the text with every step; short inputs have all the ways there are.
    constexpr std::size_t longest_input = 60;
    constexpr int most_steps = 20000; // far more than such an input takes to its end
    constexpr int many_steps = 500;
    if (size > longest_input) {
        return 0;
    }
    std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
    std::map<std::string, std::string> values;
    for (const char* name : {"a", "b", "ab"}) {
        std::getline(input, values[name]);
    }
    std::string text;
    std::getline(input, text, '\0');

    const auto result = KivFramework::internal::expand_percent_references(
        text, [&values](std::string name) -> const std::string* {
            for (char& c : name) {
                c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            }
            const auto value = values.find(name);
            return value == values.end() ? nullptr : &value->second;
        });
    // Of an expansion without end, whose text may grow with every step, the model does a part.
    const auto expected =
        kiv_test::expand_percent_references_model(text, values, result ? most_steps : many_steps);
    if (result != expected) {
        std::abort();
    }
    return 0;
}
