#pragma once

#include <cstdio>

#include <unistd.h>

namespace KivFramework::internal {

/// Moves the file `from` to the place of `to`, which goes first, whether or not the move succeeds.
///
/// \returns whether it did (`errno` tells why not).
inline bool replace_file(const char* from, const char* to) {
    ::unlink(to);
    return std::rename(from, to) == 0;
}

} // namespace KivFramework::internal
