#pragma once

namespace KivFramework::platform {

/// Gives the system log an entry whose format text is `format`, without arguments.
void write_system_log(int priority, const char* format);

} // namespace KivFramework::platform
