/// \file
/// The agent's log: a rotating file behind the library's detached default logger.
#pragma once

#include "configuration.h"

#include <string>

#include <KivFramework/KivLogger.h>

namespace agent {

/// Levels of the agent's own entries.
enum log_level : int { notable = 1, connections = 2, questions = 3 };

/// The default logger of the process for as long as the object lives. There is one at a time.
class agent_log {
public:
    /// Opens the log file. Throws `refusal` when the directory or the file cannot be made.
    explicit agent_log(const settings& values);

    /// Writes out what is queued.
    ~agent_log();
    agent_log(const agent_log&) = delete;
    agent_log& operator=(const agent_log&) = delete;

    /// Hands the writing to a thread. Threads do not survive a fork: become a daemon first.
    void detach();

    /// Adopts another level and rotation.
    void adjust(const settings& values);

    /// Rotates now, whatever the mode and the clock say.
    ///
    /// The file gets the date and hour it began with, and a number, so that it never stands in
    /// the way of the rotation that the clock brings later.
    ///
    /// \returns the path of the rotated file; empty when the file could not be moved.
    std::string rotate_now();

    /// Makes the file show what has been written so far; what is still queued follows soon.
    void flush_file();

    /// Makes the file show every entry added before the call.
    void flush_all();

    std::string path() const;

private:
    KivFramework::kivLogger logger_;
};

/// The last `count` lines of a file; at most its last megabyte.
std::string last_lines(const std::string& path, int count);

/// Reads what is appended to a log file, across its rotations.
class log_follower {
public:
    /// Starts at the present end of the file.
    explicit log_follower(std::string path);
    ~log_follower();
    log_follower(const log_follower&) = delete;
    log_follower& operator=(const log_follower&) = delete;

    /// The whole lines appended since the last call, at most about 64 KiB; the rest comes with the
    /// next call.
    std::string new_lines();

private:
    void append_new_bytes();
    bool file_was_replaced() const;

    std::string path_;
    int file_;
    std::string pending_;
};

} // namespace agent
