/// \file
/// What a program may be started without: its standard input, output and error stream.
#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace agent {

/// Opens the null device under each of the descriptors 0, 1 and 2 that is closed, so that no file
/// or socket gets one of these numbers and is taken for a standard stream, or closed as one.
///
/// \param access  O_RDWR to drop what is written there, O_RDONLY to let it fail.
inline void fill_standard_descriptors(int access) {
    int descriptor = 0;
    do {
        descriptor = ::open("/dev/null", access); // the lowest free number
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor > STDERR_FILENO) {
        ::close(descriptor);
    }
}

} // namespace agent
