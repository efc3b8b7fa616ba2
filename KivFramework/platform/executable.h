#pragma once

#include <string>

namespace KivFramework::platform {

/// The directory that holds the running executable, without a trailing separator; empty when the
/// system does not tell.
std::string executable_directory();

} // namespace KivFramework::platform
