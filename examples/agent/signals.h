/// \file
/// Signals as something that an event loop can wait for.
#pragma once

#include <array>
#include <csignal>
#include <vector>

namespace agent {

/// Takes signals over for as long as it lives: they become bytes in a pipe. There is one at a time.
class signal_watch {
public:
    /// A signal that is ignored already stays so, as after nohup; except SIGCHLD, which a parent's
    /// whim must not cost us.
    ///
    /// Throws std::system_error when the system grants no pipe.
    explicit signal_watch(const std::vector<int>& numbers);

    /// Gives the signals back to whoever had them before.
    ~signal_watch();
    signal_watch(const signal_watch&) = delete;
    signal_watch& operator=(const signal_watch&) = delete;

    /// Readable when a signal came that `take` has not told yet.
    int descriptor() const { return pipe_[0]; }

    /// The signals that came since the last call, each once.
    std::vector<int> take() const;

private:
    std::array<int, 2> pipe_ = {-1, -1};
    std::vector<std::pair<int, struct sigaction>> before_;
};

} // namespace agent
