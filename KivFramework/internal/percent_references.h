#pragma once

#include <functional>
#include <optional>
#include <string>

namespace KivFramework::internal {

/// Finds the value of a name; null when there is none. The same variable always has the same
/// address, and stays as it is during an expansion.
using variable_lookup = std::function<const std::string*(const std::string& name)>;

/// Replaces the `%NAME%` references of a text from left to right, those inside replaced values too.
///
/// An unknown name counts as an empty value. An unclosed reference ends at the last character of
/// the text, which is dropped. Of "%%" the second sign and the character behind it are dropped; the
/// first sign is then looked at again.
///
/// \returns the text; nothing when the expansion has no end, because a value leads back to itself.
std::optional<std::string> expand_percent_references(const std::string& text,
                                                     const variable_lookup& find);

} // namespace KivFramework::internal
