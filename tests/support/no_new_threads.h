#pragma once

namespace kiv_test {

/// While it lives no thread can be started. A program that adds no_new_threads.cpp has it.
class no_new_threads {
public:
    no_new_threads();
    ~no_new_threads();
    no_new_threads(const no_new_threads&) = delete;
    no_new_threads& operator=(const no_new_threads&) = delete;
};

} // namespace kiv_test
