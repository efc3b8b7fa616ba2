#pragma once

#include <functional>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace kiv_test {

/// Runs `body` in a forked child, which leaves without exit handlers, and returns the text that
/// `body` returned there. A child that ends in any other way fails the test and gives what came.
std::string report_of_child(const std::function<std::string()>& body);

/// A forked child that does nothing until the end of the scope, where it is killed and reaped.
class idle_child {
public:
    idle_child() : idle_child(std::string_view()) {}

    /// The child takes `name` as its short command name, unless it is empty.
    explicit idle_child(std::string_view name);
    ~idle_child();
    idle_child(const idle_child&) = delete;
    idle_child& operator=(const idle_child&) = delete;

    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
};

/// Lets the calling process, a child that is about to end, open `count` more descriptors and no
/// more.
void leave_descriptors(int count);

} // namespace kiv_test
