#pragma once

#include "KivFramework/internal/unique_fd.h"

#include <string>
#include <vector>

#include <sys/types.h>

namespace kiv_test {

/// A running program with a pipe on its standard input and one on its standard output. At the end
/// of the scope it is killed and reaped.
class program {
public:
    /// \param arguments  the program, looked up on PATH, and what it is given.
    explicit program(std::vector<std::string> arguments);
    ~program();
    program(const program&) = delete;
    program& operator=(const program&) = delete;

    /// Waits for the next line of its output, without the line feed; empty when the program could
    /// not be started or its output has ended.
    std::string next_line() const;

    /// Stops it where it is, and lets it go on.
    void hold() const;
    void go_on() const;

private:
    pid_t pid_ = -1;
    KivFramework::internal::unique_fd input_;
    KivFramework::internal::unique_fd output_;
};

} // namespace kiv_test
