#pragma once

#include "KivFramework/KivLogger.h"

/// What a call of a shared library that filters an entry out costs at least.
void compare_and_return(KivFramework::KivLogger::kivLogger* logger, int level, const char* module,
                        const char* format, ...);

/// The same with arguments to pass on: compilers save them before they compare.
void compare_and_return_with_arguments(KivFramework::KivLogger::kivLogger* logger, int level,
                                       const char* module, const char* format, ...);
