/// \file
/// Services for background programs: daemonising and console-session questions.
#pragma once

#include "KivFramework/KivExport.h"

namespace KivFramework {
namespace KivServices {

KIV_API bool ForkAndDaemon(int parent_exit_code);
KIV_API char* CopyCurrentConsoleUsername();
KIV_API bool IsSomeoneLogged(int* first, int* second);

} // namespace KivServices
} // namespace KivFramework
