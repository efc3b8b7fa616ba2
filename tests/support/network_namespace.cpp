#include "tests/support/network_namespace.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

kiv_test::network_namespace::network_namespace()
    : outside_(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
    if (outside_ == -1 || ::unshare(CLONE_NEWNET) == -1) {
        refusal_ = "no network namespace of its own: " + std::generic_category().message(errno);
        return;
    }
    ip("link set lo up");
}

kiv_test::network_namespace::~network_namespace() {
    if (entered() && ::setns(outside_, CLONE_NEWNET) == -1) {
        ADD_FAILURE() << "the thread cannot leave its network namespace: "
                      << std::generic_category().message(errno);
    }
    if (outside_ != -1) {
        ::close(outside_);
    }
}

bool kiv_test::network_namespace::ip(const std::string& arguments) const {
    // No other thread changes the environment or waits for children meanwhile.
    const int status =
        std::system(("ip " + arguments).c_str()); // NOLINT(concurrency-mt-unsafe): see above
    EXPECT_EQ(status, 0) << "ip " << arguments;
    return status == 0;
}
