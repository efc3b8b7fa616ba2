/// \file
/// The whole library in one include.
#pragma once

#include "KivFramework/KivBase64.h"             // IWYU pragma: export
#include "KivFramework/KivConfigFile.h"         // IWYU pragma: export
#include "KivFramework/KivFileSystem.h"         // IWYU pragma: export
#include "KivFramework/KivKqueue.h"             // IWYU pragma: export
#include "KivFramework/KivLibrary.h"            // IWYU pragma: export
#include "KivFramework/KivLogger.h"             // IWYU pragma: export
#include "KivFramework/KivMd5.h"                // IWYU pragma: export
#include "KivFramework/KivMemoryManager.h"      // IWYU pragma: export
#include "KivFramework/KivPerformanceMonitor.h" // IWYU pragma: export
#include "KivFramework/KivProcesses.h"          // IWYU pragma: export
#include "KivFramework/KivPropertyMap.h"        // IWYU pragma: export
#include "KivFramework/KivServices.h"           // IWYU pragma: export
#include "KivFramework/KivSocket.h"             // IWYU pragma: export
#include "KivFramework/KivStringHelper.h"       // IWYU pragma: export
#include "KivFramework/KivVersion.h"            // IWYU pragma: export
