#pragma once

#include "KivFramework/internal/reread_file.h"

#include <cstddef>
#include <span>

namespace KivFramework::platform {

/// What one processor has counted since the system started, in ticks of the system's clock.
struct processor_ticks {
    int processor = -1; ///< its number, among which one that is offline leaves a gap
    long user = 0;
    long system = 0;
    long idle = 0;
};

/// Reads the tick counters of the processors. What it reads from stays open, and no reading but
/// the first allocates or opens anything.
class processor_ticks_reader {
public:
    processor_ticks_reader();

    /// Reads `path`, which has the form of the system's own file and must outlive the reader.
    explicit processor_ticks_reader(const char* path);

    /// Reads the counters of the processors online, in ascending order of their numbers.
    ///
    /// \param ticks  filled from its front; what is not filled is left as it is.
    /// \param first  how many of the processors to skip.
    /// \returns how many were filled: fewer where there are no more or where they cannot be read.
    std::size_t read(std::span<processor_ticks> ticks, std::size_t first = 0);

private:
    internal::reread_file file_;
};

} // namespace KivFramework::platform
