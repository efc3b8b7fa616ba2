#include "KivFramework/internal/quiet_write.h"

#include <cerrno>
#include <csignal>
#include <ctime>

#include <unistd.h>

namespace KivFramework::internal {
namespace {

// Keeps the SIGPIPE of a failed write from the host. The kernel sends it to the writing thread, so
// blocking it there and taking it back before it is unblocked touches no other thread.
class sigpipe_guard {
public:
    sigpipe_guard() {
        sigemptyset(&sigpipe_);
        sigaddset(&sigpipe_, SIGPIPE);
        sigset_t pending;
        sigemptyset(&pending);
        ::sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &sigpipe_, &before_);
    }
    ~sigpipe_guard() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    sigpipe_guard(const sigpipe_guard&) = delete;
    sigpipe_guard& operator=(const sigpipe_guard&) = delete;

    // One that was pending before is the host's.
    void take_back() const {
        constexpr timespec no_wait{};
        if (was_pending_) {
            return;
        }
        // One that is blocked is pending even where the host ignores it.
        while (::sigtimedwait(&sigpipe_, nullptr, &no_wait) == -1 && errno == EINTR) {
        }
    }

private:
    sigset_t sigpipe_;
    sigset_t before_;
    bool was_pending_ = false;
};

} // namespace
} // namespace KivFramework::internal

ssize_t KivFramework::internal::quiet_write(int descriptor, const void* data, std::size_t size) {
    const sigpipe_guard guard;
    const ssize_t written = ::write(descriptor, data, size);
    if (written == -1 && errno == EPIPE) {
        guard.take_back();
        errno = EPIPE;
    }
    return written;
}
