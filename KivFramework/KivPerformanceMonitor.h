/// \file
/// The background sampler of processor and memory use.
#pragma once

#include "KivFramework/KivExport.h"

namespace KivFramework {
namespace KivPerformanceMonitor {

/// Stops the sampler; does nothing when it never ran. `ShutdownLibrary` calls it.
KIV_API void StopPerformanceMonitor();

} // namespace KivPerformanceMonitor
} // namespace KivFramework
