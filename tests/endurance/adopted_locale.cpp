// Loaded before a program's libraries: has it adopt the locale of its environment, as many hosts do
// and the tests do not. The system's messages stay as they are: tests compare them.

#include "tests/endurance/own_program.h"

#include <clocale>

namespace {

[[gnu::constructor]] void adopt() {
    if (kiv_endurance::is_own_program()) {
        // Nothing else runs yet in a constructor. NOLINTBEGIN(concurrency-mt-unsafe)
        std::setlocale(LC_ALL, "");
        std::setlocale(LC_MESSAGES, "C");
        // NOLINTEND(concurrency-mt-unsafe)
    }
}

} // namespace
