#pragma once

#include "KivFramework/internal/unique_fd.h"

#include <string>

#include <sys/mman.h>

namespace kiv_test {

/// A file that exists in memory alone, for tests and fuzz targets that write thousands. It can be
/// opened, truncated and written by its path like any other.
class memory_file {
public:
    memory_file() : descriptor_(::memfd_create("kiv-test", MFD_CLOEXEC)) {}

    bool valid() const { return descriptor_.valid(); }
    const char* path() const { return path_.c_str(); }

private:
    KivFramework::internal::unique_fd descriptor_;
    std::string path_ = "/proc/self/fd/" + std::to_string(descriptor_.get());
};

} // namespace kiv_test
