#pragma once

#include <optional>

namespace KivFramework::platform {

/// The number of processors online; nothing when the system does not tell.
std::optional<int> processors_online();

} // namespace KivFramework::platform
