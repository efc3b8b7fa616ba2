#pragma once

#include "KivFramework/internal/unique_fd.h"

#include "tests/support/standard_streams.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

namespace kiv_test {

/// The two ends of a pipe, closed when a program is started; see `make_pipe`.
struct pipe_ends {
    KivFramework::internal::unique_fd read;
    KivFramework::internal::unique_fd write;
};

/// A new pipe; where none can be made the test fails and the ends are not valid. Neither end is a
/// standard stream.
inline pipe_ends make_pipe() {
    const standard_streams_taken taken;
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0) << "no pipe can be made";
    return {KivFramework::internal::unique_fd(ends[0]), KivFramework::internal::unique_fd(ends[1])};
}

} // namespace kiv_test
