// Loaded before a program's libraries: has it adopt the locale of its environment, as many hosts do
// and the tests do not.

#include "tests/endurance/own_program.h"

#include <clocale>

namespace {

[[gnu::constructor]] void adopt() {
    if (kiv_endurance::is_own_program()) {
        // Nothing else runs yet in a constructor. NOLINTNEXTLINE(concurrency-mt-unsafe)
        std::setlocale(LC_ALL, "");
    }
}

} // namespace
