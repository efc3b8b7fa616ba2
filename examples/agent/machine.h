/// \file
/// The load of the machine, as the library's performance monitor measures it.
#pragma once

#include "snapshot.h"

#include <optional>
#include <vector>

namespace agent {

/// Reads the monitor, which samples once a second in a thread of its own.
class machine {
public:
    /// Starts the monitor; `ShutdownLibrary` stops it. Its thread would not survive a fork: become
    /// a daemon first.
    machine();

    /// The load of every processor that the monitor measures, in percent; 0 during the first
    /// second.
    std::vector<double> processor_loads() const;

    /// The memory that is free, active or inactive, and how much of it is not free; nothing while
    /// that is not known.
    ///
    /// The monitor counts in remainders of 4 GiB. They are put right with what is installed, which
    /// works as long as less than 4 GiB of it is in nobody's list (the kernel's own, huge pages).
    std::optional<memory_use> memory();

private:
    unsigned long long first_usage_;
    bool first_usage_is_over_ = false;
};

} // namespace agent
