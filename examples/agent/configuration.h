/// \file
/// The agent's configuration file: its default text, its checks, and changes that keep its
/// comments.
#pragma once

#include "protocol.h"

#include <map>
#include <optional>
#include <stdexcept>
#include <string>

#include <KivFramework/KivConfigFile.h>

namespace agent {

/// A program that the operator of the machine lets consoles start.
struct job_definition {
    std::string command; ///< program (a full path) and its arguments
    std::string user;    ///< account to run as; empty for the agent's own
};

/// The values of a configuration file, checked; paths are absolute.
struct settings {
    int port = protocol::default_port; ///< 0 lets the system pick one
    std::string port_file;
    std::string pid_file;
    int silence_limit = 60; ///< seconds
    int max_clients = 200;
    std::string log_directory;
    std::string log_file;
    int log_level = 2;
    int log_rotation = 0;        ///< the logger's number for it
    std::string files_directory; ///< what consoles may read; empty for nothing
    std::map<std::string, job_definition> jobs;
};

/// Why the agent refuses a configuration, a change of it, or to start.
class refusal : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A loaded configuration file.
class configuration {
public:
    /// Loads `path`, after writing the commented default there when no such file exists.
    ///
    /// Throws `refusal` when the file cannot be used: unreadable, not a text file, with a line
    /// that means nothing, or with a value out of its range.
    explicit configuration(const std::string& path);

    /// The file's absolute path.
    const std::string& path() const { return path_; }

    const settings& values() const { return settings_; }

    /// The text of one setting, as loaded or set; nothing when the file has no such setting.
    std::optional<std::string> get(const std::string& section, const std::string& key);

    /// Changes one setting in the file, whose comments and order stay.
    ///
    /// The change is made to a copy that must read back complete before it takes the file's place,
    /// so that neither a full disk nor an unlucky layout costs a setting. Edits made by hand since
    /// the last load are kept. Jobs and file names cannot be changed this way: what a console may
    /// start, and where the agent writes, is decided on the machine itself.
    ///
    /// Throws `refusal`; the file is as it was then.
    ///
    /// \returns whether the change takes effect at once (otherwise with the next start).
    bool set(const std::string& section, const std::string& key, const std::string& value);

private:
    KivFramework::kivConfigManager load() const;
    settings checked(KivFramework::kivConfigManager& manager) const;
    void replace_file(KivFramework::kivConfigManager& changed) const;

    std::string path_;
    KivFramework::kivConfigManager manager_;
    settings settings_;
};

} // namespace agent
