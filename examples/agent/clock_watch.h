/// \file
/// Notices when the wall clock is set.
#pragma once

#include <chrono>
#include <ctime>

namespace agent {

/// Compares the wall clock with the time that passes. Streams count silence in seconds of the wall
/// clock: when an administrator or a resumed machine sets it forward, everybody seems to have been
/// silent for long, and when it is set back nobody does.
class clock_watch {
public:
    /// Whether the clock was set since the last call, or since the beginning. Smaller corrections
    /// than two seconds do not count, nor do those of a clock that is made to run faster or slower.
    bool was_set() {
        constexpr std::chrono::seconds tolerance(2);
        const std::time_t wall = std::time(nullptr);
        const clock::time_point now = clock::now();
        const auto shift = std::chrono::seconds(wall - wall_) - (now - now_);
        wall_ = wall;
        now_ = now;
        return shift >= tolerance || shift <= -tolerance;
    }

private:
    using clock = std::chrono::steady_clock;

    std::time_t wall_ = std::time(nullptr);
    clock::time_point now_ = clock::now();
};

} // namespace agent
