/// \file
/// What `kiv-console top` shows, and its form on the wire.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace agent {

/// A job of the configuration and how it is.
struct job_row {
    std::string name;
    std::string state;
    std::string command;
    bool running = false;
};

/// Bytes of memory.
struct memory_use {
    unsigned long long used = 0;
    unsigned long long amount = 0;
};

/// The machine, the agent and its jobs at one moment.
struct snapshot {
    std::string host;
    int pid = 0;
    long uptime_seconds = 0;
    int clients = 0;
    long long questions = 0;
    std::vector<double> processor_loads; ///< percent
    std::optional<memory_use> memory;    ///< nothing while it is not known
    std::vector<job_row> jobs;
};

/// One "name value" line for every figure, in the order of the record.
std::string to_text(const snapshot& shown);

/// "12.5%"
std::string percent_text(double percent);

/// "3.1 of 7.6 GiB", or MiB where there is less than one GiB.
std::string memory_text(const memory_use& memory);

/// Reads what `to_text` wrote. Lines of other names are skipped, so that a newer agent may say
/// more.
///
/// Throws std::runtime_error when a value is not what its name promises.
snapshot snapshot_from(const std::string& text);

} // namespace agent
