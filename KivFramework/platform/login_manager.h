#pragma once

#include <optional>

#include <sys/types.h>

namespace KivFramework::platform {

enum class login_request { power_off, restart, suspend, end_active_session };

/// Sends a request to the system's login manager and waits for its answer. Never asks a user for
/// authorization.
///
/// \returns 0 when the request was taken, the `errno` value of its refusal or failure otherwise:
///          ENODATA when no session is active that could be ended. Nothing when the system has no
///          login manager.
std::optional<int> send_login_request(login_request request);

/// The user whose session is active at the console; nothing when nobody is logged in there or the
/// system has no login manager.
std::optional<uid_t> console_user();

} // namespace KivFramework::platform
