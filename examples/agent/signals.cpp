#include "signals.h"

#include "messages.h"

#include <atomic>
#include <cerrno>
#include <system_error>

#include <KivFramework/KivSocket.h>
#include <unistd.h>

using namespace KivFramework;

namespace {

// What a handler may touch; it has no other way to the watch.
std::atomic<int> handler_pipe = -1;
std::array<std::atomic<bool>, NSIG> came;

extern "C" void pass_signal_on(int number) {
    const int saved_errno = errno;
    came[static_cast<std::size_t>(number)] = true;
    // A full pipe takes no more bytes, but then what is in it wakes the loop all the same.
    [[maybe_unused]] const ssize_t written = ::write(handler_pipe, "", 1);
    errno = saved_errno;
}

} // namespace

agent::signal_watch::signal_watch(const std::vector<int>& numbers) {
    errno = 0; // SetBlockStatus, at work inside, gives up when an old EBADF is still standing there
    if (KivSocket::CreateLoopbackPipes(pipe_.data()) == -1) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    for (const int end : pipe_) {
        keep_from_children(end);
    }
    handler_pipe = pipe_[1];
    for (const int number : numbers) {
        struct sigaction before {};
        ::sigaction(number, nullptr, &before);
        if (before.sa_handler == SIG_IGN && number != SIGCHLD) {
            continue;
        }
        struct sigaction action {};
        action.sa_handler = pass_signal_on;
        action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
        sigemptyset(&action.sa_mask);
        ::sigaction(number, &action, nullptr);
        before_.emplace_back(number, before);
    }
}

agent::signal_watch::~signal_watch() {
    for (const auto& [number, action] : before_) {
        ::sigaction(number, &action, nullptr);
    }
    handler_pipe = -1;
    for (const int end : pipe_) {
        ::close(end);
    }
}

std::vector<int> agent::signal_watch::take() const {
    std::array<char, 64> ignored{};
    [[maybe_unused]] const ssize_t count = ::read(pipe_[0], ignored.data(), ignored.size());
    std::vector<int> numbers;
    for (const auto& [number, action] : before_) {
        if (came[static_cast<std::size_t>(number)].exchange(false)) {
            numbers.push_back(number);
        }
    }
    return numbers;
}
