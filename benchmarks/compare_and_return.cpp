#include "benchmarks/compare_and_return.h"

#include <cstdarg>
#include <cstdlib>

namespace {

[[gnu::noipa]] void never_called(const char* /*format*/, std::va_list /*arguments*/) {
    std::abort();
}

} // namespace

void compare_and_return(KivFramework::KivLogger::kivLogger* logger, int level,
                        const char* /*module*/, const char* /*format*/, ...) {
    if (logger == nullptr || level > logger->level) {
        return;
    }
    std::abort();
}

void compare_and_return_with_arguments(KivFramework::KivLogger::kivLogger* logger, int level,
                                       const char* /*module*/, const char* format, ...) {
    if (logger == nullptr || level > logger->level) {
        return;
    }
    std::va_list arguments;
    va_start(arguments, format);
    never_called(format, arguments);
    va_end(arguments);
}
