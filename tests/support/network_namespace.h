#pragma once

#include <string>

namespace kiv_test {

/// A network namespace of the test's own: the calling thread, and every thread and child it starts,
/// lives in it until the end of the scope. It begins with nothing but a loopback interface, which
/// is up.
///
///     const kiv_test::network_namespace network;
///     if (!network.entered()) {
///         GTEST_SKIP() << network.refusal();
///     }
///     network.ip("link add wire0 type veth peer name wire1");
class network_namespace {
public:
    network_namespace();
    ~network_namespace();
    network_namespace(const network_namespace&) = delete;
    network_namespace& operator=(const network_namespace&) = delete;

    /// False where the system does not permit it; the thread is then where it was.
    bool entered() const { return refusal_.empty(); }

    /// Why the namespace was not entered, for the message of a skipped test.
    const std::string& refusal() const { return refusal_; }

    /// Runs the `ip` program inside, for example `ip("link set wire0 up")`; a failure is added to
    /// the test.
    ///
    /// \returns whether it succeeded.
    bool ip(const std::string& arguments) const;

private:
    int outside_ = -1; // the namespace to go back to
    std::string refusal_;
};

} // namespace kiv_test
