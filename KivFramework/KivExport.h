/// \file
/// Marks that every public header puts on its declarations.
#pragma once

#if defined(__GNUC__)
/// Makes an operation or class part of the shared library's interface.
#define KIV_API __attribute__((visibility("default")))
/// Lets the compiler check a printf-style format against its arguments.
#define KIV_PRINTF(format_index, first_argument)                                                   \
    __attribute__((format(printf, format_index, first_argument)))
#else
#define KIV_API
#define KIV_PRINTF(format_index, first_argument)
#endif
