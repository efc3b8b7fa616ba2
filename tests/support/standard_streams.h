#pragma once

#include <fcntl.h>
#include <unistd.h>

namespace kiv_test {

/// Keeps descriptors made meanwhile above the standard streams, of which the process may have none.
class standard_streams_taken {
public:
    standard_streams_taken() {
        int descriptor = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        while (descriptor >= 0 && descriptor <= STDERR_FILENO) {
            taken_[descriptor] = true;
            descriptor = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        }
        if (descriptor >= 0) {
            ::close(descriptor);
        }
    }
    ~standard_streams_taken() {
        for (int descriptor = 0; descriptor <= STDERR_FILENO; ++descriptor) {
            if (taken_[descriptor]) {
                ::close(descriptor);
            }
        }
    }
    standard_streams_taken(const standard_streams_taken&) = delete;
    standard_streams_taken& operator=(const standard_streams_taken&) = delete;

private:
    bool taken_[STDERR_FILENO + 1] = {};
};

} // namespace kiv_test
