#pragma once

#include <optional>
#include <string>
#include <vector>

namespace KivFramework::platform {

/// One process as the kernel lists it.
struct process_row {
    int pid = 0;
    int ppid = 0;
    std::string name; ///< the kernel's short command name, whatever bytes it holds
};

/// All processes that the caller may see, threads apart, in the kernel's order: ascending pid. A
/// process that ends while the table is read is left out.
///
/// \returns nothing when the table cannot be read.
std::optional<std::vector<process_row>> read_process_table();

/// The parent that `read_process_table` would show for `pid`, without reading the other processes;
/// nothing when there is no such process or it cannot be read.
std::optional<int> read_parent_pid(int pid);

} // namespace KivFramework::platform
