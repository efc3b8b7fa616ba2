#pragma once

#include <cstddef>

#include <sys/types.h>

namespace KivFramework::internal {

/// Reads `size` bytes, in as many pieces as the system gives them and whatever signals arrive.
///
/// \returns how many came: fewer at the end of the file, or where an error stopped the reading, and
///          -1 with `errno` when the error came before the first byte.
ssize_t read_fully(int descriptor, void* data, std::size_t size);

} // namespace KivFramework::internal
