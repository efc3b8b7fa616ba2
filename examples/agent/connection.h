/// \file
/// The console's side of the conversation with an agent.
#pragma once

#include "protocol.h"

#include <functional>
#include <stdexcept>
#include <string>

#include <KivFramework/KivSocket.h>

namespace agent {

/// Why a console ends with exit code 1.
class console_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A connection to the agent on a loopback port.
class connection {
public:
    /// Throws `console_error` when nobody listens there.
    explicit connection(int port);
    ~connection();
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;

    /// Asks one question and waits for the end of its answer, sending heart-beats meanwhile.
    ///
    /// \param on_text  called with every part of the answer as it arrives.
    /// \returns the exit code that the agent gives the console, 0 for most answers.
    ///
    /// Throws `console_error` when the agent refuses, goes away or falls silent.
    int ask(protocol::request type, const std::string& body,
            const std::function<void(const std::string&)>& on_text);

private:
    void exchange();

    KivFramework::kivSocketStream stream_;
    int queue_;
};

} // namespace agent
