#pragma once

#include <utility>

#include <unistd.h>

namespace KivFramework::internal {

/// Owns a file descriptor until the end of the scope or `release`.
class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int descriptor) : descriptor_(descriptor) {}
    unique_fd(unique_fd&& other) noexcept : descriptor_(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    ~unique_fd() { reset(); }

    int get() const { return descriptor_; }
    bool valid() const { return descriptor_ >= 0; }

    /// Hands the descriptor over to the caller.
    int release() { return std::exchange(descriptor_, -1); }

    /// Closes the descriptor, if any, and owns `descriptor` instead.
    void reset(int descriptor = -1) {
        if (descriptor_ >= 0) {
            // The number is free again whatever close answers, so its result has no use here.
            ::close(descriptor_);
        }
        descriptor_ = descriptor;
    }

private:
    int descriptor_ = -1;
};

} // namespace KivFramework::internal
