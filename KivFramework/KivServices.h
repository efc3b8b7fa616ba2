/// \file
/// Services for background programs: daemonising and console-session questions.
#pragma once

#include "KivFramework/KivExport.h"

namespace KivFramework {
namespace KivServices {

/// Makes the program a daemon: it goes on as a child of its own in the background.
///
/// The calling process ends at once, without exit handlers and without flushing buffers. The
/// daemon leads a new session without a terminal, works in "/", creates files with mask 0, and has
/// descriptors 0, 1 and 2 closed.
///
/// \param parent_exit_code  the exit status of the calling process.
/// \returns true in the daemon; false in the calling process when no child could be made
///          (`errno` tells why), and nothing has changed then.
///
/// Threads: only the calling thread goes on in the daemon, so call it before any other is started.
/// Deliberate: the standard descriptors are left closed and the next three files that the daemon
/// opens take their numbers, because hosts put their own there. A host that does not opens the
/// null device three times first.
KIV_API bool ForkAndDaemon(int parent_exit_code);

/// The account name of the user whose session is active at the console (seat0).
///
/// \returns a C string, the caller's, to be released with `KivMemoryManager::ReleaseMemory`; null
///          when nobody is logged in there or the system has no session manager.
///
/// Threads: no lock; any number of threads.
KIV_API char* CopyCurrentConsoleUsername();

/// Claims that somebody is logged in.
///
/// \param first, second  accepted and never written; null is fine.
/// \returns always true.
///
/// Deliberate: the answer is true with nobody logged in too, because hosts take it as permission to
/// go on. Ask `CopyCurrentConsoleUsername` for the state of the console.
KIV_API bool IsSomeoneLogged(int* first, int* second);

} // namespace KivServices
} // namespace KivFramework
