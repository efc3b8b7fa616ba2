#pragma once

#include <cstdarg>
#include <cstddef>

namespace KivFramework::internal {

/// Formats as `vsnprintf` does, but faster where the format asks for plain numbers and texts only.
///
/// \param out   room for `size` bytes, at least 1; what does not fit is cut, and a NUL follows.
/// \returns the number of bytes before that NUL. When an argument cannot be shown, the text ends
///          before it.
std::size_t format_message(char* out, std::size_t size, const char* format, std::va_list arguments);

} // namespace KivFramework::internal
