/// \file
/// The console's side of the conversation with an agent.
#pragma once

#include "clock_watch.h"
#include "protocol.h"

#include <chrono>
#include <functional>
#include <optional>
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

    /// Asks a question. `wait` takes its answer.
    void begin(protocol::request type, const std::string& body);

    /// Waits until something happens, but no longer than `limit_ms`, and handles it. Heart-beats
    /// are sent on the way.
    ///
    /// \param on_text  called with every part of the answer as it arrives.
    /// \returns nothing while the answer is not complete; then the exit code that the agent gives
    ///          the console, 0 for most answers.
    ///
    /// Throws `console_error` when the agent refuses, goes away or falls silent.
    std::optional<int> wait(int limit_ms, const std::function<void(const std::string&)>& on_text);

    /// Lets a wait end when `descriptor` can be read, or no longer so.
    ///
    /// \returns false when it cannot be waited for (a regular file).
    bool watch(int descriptor);
    void forget(int descriptor);

    /// Asks one question and waits for the end of its answer.
    ///
    /// \param on_text  called with every part of the answer as it arrives.
    /// \returns the exit code that the agent gives the console, 0 for most answers.
    ///
    /// Throws `console_error` when the agent refuses, goes away or falls silent.
    int ask(protocol::request type, const std::string& body,
            const std::function<void(const std::string&)>& on_text);

private:
    using clock = std::chrono::steady_clock;

    std::optional<int> take_answer(const std::function<void(const std::string&)>& on_text);
    void keep_alive();
    void exchange(int limit_ms);

    KivFramework::kivSocketStream stream_;
    int queue_;
    clock::time_point next_beat_;
    clock_watch clock_watch_;
};

} // namespace agent
