#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace KivFramework::internal {

/// Splits a command line into its arguments, of any number and length.
///
/// Spaces and tabs separate; double quotes enclose, and the closing one ends the argument; a
/// backslash before a double quote makes it an ordinary character. What is stored without starting
/// an argument (an escaped quote outside quotes, the text of an unterminated quote) is kept for the
/// next argument, or dropped at the end of the text.
std::vector<std::string> split_command_line(std::string_view text);

} // namespace KivFramework::internal
