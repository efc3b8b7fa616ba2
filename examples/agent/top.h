/// \file
/// The command that watches an agent.
#pragma once

#include "connection.h"

#include <functional>
#include <string>

namespace agent {

/// Shows what an agent and its machine do: on a terminal once a second until a key or a signal ends
/// it, otherwise once.
///
/// \param print  writes to the standard output where that is not a terminal.
///
/// Throws `console_error` as the connection does, with the terminal as it was before.
///
/// \returns 0, or the signal that ended it, which the caller raises again when all is cleaned up.
int watch_agent(connection& watched, const std::function<void(const std::string&)>& print);

} // namespace agent
