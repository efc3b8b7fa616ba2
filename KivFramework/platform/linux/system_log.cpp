// A fortified build would turn the call below into __syslog_chk, so that a host which stands in for
// syslog would no longer see the library's entries.
#undef _FORTIFY_SOURCE

#include "KivFramework/platform/system_log.h"

#include <syslog.h>

#pragma GCC diagnostic push
// The text is the format on purpose: a "%" in it is the system log's to interpret.
#pragma GCC diagnostic ignored "-Wformat-security"

void KivFramework::platform::write_system_log(int priority, const char* format) {
    ::syslog(priority, format);
}

#pragma GCC diagnostic pop
