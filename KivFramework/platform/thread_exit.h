#pragma once

namespace KivFramework::platform {

/// Sees to it that `pthread_exit` works in this process from now on.
///
/// \returns false when it cannot be had now, for lack of memory; a later call may succeed.
bool prepare_thread_exit();

} // namespace KivFramework::platform
