// Splits command lines and compares the arguments with those of the literal model, as long as the
// text fits into its fixed scratch space.

#include "KivFramework/internal/command_line.h"

#include "tests/oracle/command_line_model.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t longest_for_the_model = 8000;
    // The model reads C strings, as the library's callers give them.
    std::string text(reinterpret_cast<const char*>(data), size);
    text.resize(std::strlen(text.c_str()));
    const auto arguments = KivFramework::internal::split_command_line(text);
    if (text.size() <= longest_for_the_model &&
        arguments != kiv_test::split_command_line_model(text.c_str())) {
        std::abort();
    }
    return 0;
}
