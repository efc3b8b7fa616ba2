#pragma once

#include <cstddef>
#include <string_view>

namespace KivFramework::internal {

/// Compresses `text` to the very bytes that zlib's `compress` makes of it at its default level.
///
/// The calling thread keeps its compression state for the next text, until it ends: setting one up
/// costs more than compressing a short text does.
///
/// \returns the length of the zlib stream at `destination`; 0 when it does not fit into `capacity`
///          bytes or the memory for the state is missing.
std::size_t deflate_text(std::string_view text, char* destination, std::size_t capacity);

} // namespace KivFramework::internal
