#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kiv_test {

/// Stands in for the system log while it lives and records what is asked of it. A program that adds
/// fake_system_log.cpp reaches no real one.
class fake_system_log {
public:
    struct opening {
        const char* identity; ///< as passed, still the caller's
        int options;
        int facility;
    };
    struct entry {
        int priority;
        std::string format; ///< the text itself, before any "%" is interpreted
    };

    fake_system_log();
    ~fake_system_log();
    fake_system_log(const fake_system_log&) = delete;
    fake_system_log& operator=(const fake_system_log&) = delete;

    std::vector<opening> openings() const;
    std::vector<entry> entries() const;
    int closings() const;

    /// Calls `hook` with every entry, after it is recorded, on the thread that makes it.
    void on_entry(std::function<void(const entry&)> hook);
};

} // namespace kiv_test
