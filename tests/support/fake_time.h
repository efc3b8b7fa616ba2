#pragma once

#include <ctime>
#include <string>

namespace kiv_test {

/// Stands in for the system's `time` while it lives. A program that adds fake_time.cpp has it.
class fake_time {
public:
    /// \param step  seconds that the clock goes on after every reading.
    explicit fake_time(std::time_t now, std::time_t step = 0);
    ~fake_time();
    fake_time(const fake_time&) = delete;
    fake_time& operator=(const fake_time&) = delete;

    void set(std::time_t now, std::time_t step = 0);
};

/// Sets the environment's TZ while it lives.
class time_zone {
public:
    explicit time_zone(const std::string& zone);
    ~time_zone();
    time_zone(const time_zone&) = delete;
    time_zone& operator=(const time_zone&) = delete;

private:
    bool was_set_;
    std::string old_;
};

} // namespace kiv_test
