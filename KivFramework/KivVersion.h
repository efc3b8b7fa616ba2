/// \file
/// The version: of these headers at compile time, of the loaded library at run time.
#pragma once

#include "KivFramework/KivExport.h"

// The one place of the version: the build reads these three lines. It is semantic: hosts built
// against a release run with every later one of the same major number.
#define KIV_VERSION_MAJOR 1
#define KIV_VERSION_MINOR 0
#define KIV_VERSION_PATCH 0

#define KIV_TEXT_OF_(argument) #argument
#define KIV_VERSION_TEXT_(major, minor, patch)                                                     \
    KIV_TEXT_OF_(major) "." KIV_TEXT_OF_(minor) "." KIV_TEXT_OF_(patch)

/// The version of these headers as a text literal, such as "1.0.0".
#define KIV_VERSION KIV_VERSION_TEXT_(KIV_VERSION_MAJOR, KIV_VERSION_MINOR, KIV_VERSION_PATCH)

namespace KivFramework {

/// The version of the loaded library, such as "1.0.0".
///
/// It differs from `KIV_VERSION` when a host runs with another release than it was compiled with.
///
/// \returns a constant text that stays the library's.
///
/// Threads: takes no lock; any thread at any time, before the start and after the stop too.
KIV_API const char* GetLibraryVersion();

} // namespace KivFramework
