#pragma once

#include <functional>

namespace kiv_test {

/// Whether `call` waits without end in a system call that nothing but a signal ends, so that it
/// uses no processor, and goes on waiting after a signal. It is made in a child, which is killed.
bool waits_for_ever(const std::function<void()>& call);

} // namespace kiv_test
