#pragma once

#include <cstddef>

#include <sys/types.h>

namespace KivFramework::internal {

/// Like `write`, but raises no SIGPIPE: a pipe that nobody reads gives -1 with `errno` EPIPE,
/// whatever the host does with the signal.
ssize_t quiet_write(int descriptor, const void* data, std::size_t size);

} // namespace KivFramework::internal
