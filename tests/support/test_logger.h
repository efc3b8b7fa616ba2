#pragma once

#include "KivFramework/KivLogger.h"

#include "tests/support/temp_directory.h"

#include <string>
#include <string_view>

namespace kiv_test {

/// A logger with a directory of its own; destroyed with the object unless that happened before.
class test_logger {
public:
    /// Creates the logger with a threshold of 1, or another.
    explicit test_logger(int flags, int level = 1);
    ~test_logger();
    test_logger(const test_logger&) = delete;
    test_logger& operator=(const test_logger&) = delete;

    KivFramework::kivLogger* get() { return &record_; }
    KivFramework::kivLogger& record() { return record_; }

    /// Destroys the logger, which closes its file.
    void destroy();

    /// The path of a file in the log directory, of the log file itself without a name.
    std::string path(const std::string& name = "default.log") const;

private:
    temp_directory directory_;
    KivFramework::kivLogger record_;
    bool created_ = true;
};

/// The text of a log with the date, 19 characters, cut off every line.
std::string without_dates(std::string_view text);

/// Sends the process's standard output to a file of its own while it lives.
class stdout_redirection {
public:
    stdout_redirection();
    ~stdout_redirection();
    stdout_redirection(const stdout_redirection&) = delete;
    stdout_redirection& operator=(const stdout_redirection&) = delete;

    /// What has reached the file, unflushed output excluded.
    std::string bytes() const;

private:
    temp_directory directory_;
    int saved_;
};

} // namespace kiv_test
