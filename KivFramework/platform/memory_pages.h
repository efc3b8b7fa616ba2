#pragma once

#include "KivFramework/internal/reread_file.h"

#include <optional>

namespace KivFramework::platform {

/// How many pages of memory there are in some of the states that the system tells apart.
struct memory_pages {
    unsigned long long free = 0;
    unsigned long long active = 0;
    unsigned long long inactive = 0;
    unsigned long long page_size = 0; ///< bytes
};

/// Reads the page counts. What it reads from stays open, and no reading but the first allocates or
/// opens anything.
class memory_pages_reader {
public:
    memory_pages_reader();

    /// Reads `path`, which has the form of the system's own file and must outlive the reader.
    explicit memory_pages_reader(const char* path);

    /// The counts of this moment; nothing when one of them cannot be read.
    std::optional<memory_pages> read();

private:
    internal::reread_file file_;
};

} // namespace KivFramework::platform
