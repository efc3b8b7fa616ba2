/// \file
/// What makes an agent the only one of its kind and lets others find it: the pid file, the
/// listening socket, the lock file and the port file.
#pragma once

#include "configuration.h"

#include <string>

namespace agent {

/// The pid file, locked: one running agent per configuration.
///
/// The lock is the kernel's and dies with its last holder, so a crashed agent never blocks the
/// next start, and it passes to the child when the agent becomes a daemon.
class pid_file {
public:
    /// Throws `refusal` when another agent holds the file or it cannot be made.
    explicit pid_file(std::string path);

    /// Removes the file.
    ~pid_file();
    pid_file(const pid_file&) = delete;
    pid_file& operator=(const pid_file&) = delete;

    /// Writes the calling process's id.
    void record_this_process() const;

private:
    std::string path_;
    int file_;
};

/// The listening socket on the loopback address, and the files that announce it.
class listener {
public:
    /// Throws `refusal` when the port is taken or the port file cannot be written.
    explicit listener(const settings& values);

    /// Closes the socket and removes the files.
    ~listener();
    listener(const listener&) = delete;
    listener& operator=(const listener&) = delete;

    int socket() const { return socket_; }
    int port() const { return port_; }

private:
    void announce();

    std::string port_file_;
    std::string lock_name_;
    int socket_ = -1;
    int port_ = 0;
    int lock_ = -1;
};

/// Tells the service manager that started this agent, if it asked to be told, that consoles are
/// served now: the start has succeeded, and whatever was to wait for it may begin.
void tell_service_manager();

} // namespace agent
