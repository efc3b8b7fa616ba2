#pragma once

#include <chrono>
#include <thread>

namespace kiv_test {

/// Polls `condition` until it holds, for at most a generous limit that no healthy run comes near.
///
/// \returns whether the condition came to hold.
template <typename condition_type>
bool wait_until(condition_type condition, std::chrono::seconds limit = std::chrono::seconds(60)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace kiv_test
