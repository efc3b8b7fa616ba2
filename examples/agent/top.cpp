#include "top.h"

#include "signals.h"
#include "snapshot.h"
#include "terminal.h"
#include "top_view.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <exception>
#include <optional>
#include <string>

#include <KivFramework/KivStringHelper.h>
#include <unistd.h>

using namespace KivFramework;

namespace {

using clock = std::chrono::steady_clock;

constexpr std::chrono::seconds refresh_period(1);
constexpr std::chrono::seconds noticeable_delay(3);
constexpr int date_and_time = 2; // a mode of FormatTime
constexpr char control_l = 'L' & 0x1F;

std::string clock_text() {
    return KivStringHelper::FormatTime(static_cast<long>(std::time(nullptr)), date_and_time);
}

agent::snapshot parsed(const std::string& text) {
    try {
        return agent::snapshot_from(text);
    } catch (const std::exception& problem) {
        throw agent::console_error(std::string("the agent's answer is malformed: ") +
                                   problem.what());
    }
}

// The view on the terminal and what it is in the middle of.
class top_screen {
public:
    top_screen(agent::connection& watched, const agent::terminal_abilities& abilities)
        : watched_(watched), abilities_(abilities),
          signals_({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGCONT, SIGWINCH}) {
        watched_.watch(signals_.descriptor());
        if (screen_.has_keyboard()) {
            watched_.watch(STDIN_FILENO);
        }
    }

    ~top_screen() {
        watched_.forget(signals_.descriptor());
        watched_.forget(STDIN_FILENO); // no harm where it was not watched
    }
    top_screen(const top_screen&) = delete;
    top_screen& operator=(const top_screen&) = delete;

    // Returns the signal that ended it, or 0.
    int run() {
        for (;;) {
            const std::optional<int> ending = handle_signals();
            if (ending) {
                return *ending;
            }
            if (!handle_keys()) {
                return 0;
            }
            exchange();
            draw();
        }
    }

private:
    std::optional<int> handle_signals() {
        for (const int number : signals_.take()) {
            switch (number) {
            case SIGTSTP:
                stop_for_now();
                break;
            case SIGCONT: // after a stop that could not be handled, too
                screen_.enter();
                break;
            case SIGWINCH:
                break;
            default:
                return number;
            }
            due_ = true;
        }
        return std::nullopt;
    }

    // As Ctrl-Z asks: the shell gets the terminal as it was.
    void stop_for_now() {
        screen_.leave();
        struct sigaction ours {};
        struct sigaction usual {};
        usual.sa_handler = SIG_DFL;
        ::sigaction(SIGTSTP, &usual, &ours);
        ::raise(SIGTSTP);
        ::sigaction(SIGTSTP, &ours, nullptr);
        screen_.enter();
    }

    bool handle_keys() {
        std::string keys;
        if (!screen_.read_keys(keys)) {
            return true;
        }
        due_ = due_ || keys.find(control_l) != std::string::npos;
        return keys.find_first_of("qQ") == std::string::npos;
    }

    // Asks once a second, and waits for the answer, a key, a signal or the next second.
    void exchange() {
        const clock::time_point now = clock::now();
        if (now >= next_tick_) {
            next_tick_ = now + refresh_period;
            if (asked_at_) {
                due_ = true; // the agent takes its time; the clock goes on
            } else {
                watched_.begin(agent::protocol::request::view, {});
                asked_at_ = now;
                answer_.clear();
            }
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(next_tick_ - now);
        const std::optional<int> end_of_answer = watched_.wait(
            static_cast<int>(left.count()), [this](const std::string& text) { answer_ += text; });
        if (end_of_answer) {
            shown_ = parsed(answer_);
            asked_at_.reset();
            due_ = true;
        }
    }

    void draw() {
        if (!due_ || !shown_) {
            return;
        }
        due_ = false;
        const agent::terminal_size size = screen_.size();
        const agent::picture_style style = {size.columns, size.rows, abilities_.colour,
                                            abilities_.unicode};
        if (!screen_.draw(agent::picture_of(*shown_, style, clock_text(), footer()))) {
            throw agent::console_error("the terminal is gone");
        }
    }

    std::string footer() const {
        const auto waiting = asked_at_ ? clock::now() - *asked_at_ : clock::duration::zero();
        if (waiting < noticeable_delay) {
            return "q: quit";
        }
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(waiting).count();
        return "q: quit - the agent has not answered for " + std::to_string(seconds) + " seconds";
    }

    agent::connection& watched_;
    agent::terminal_abilities abilities_;
    agent::signal_watch signals_;
    agent::full_screen screen_; // after the signals, which must not come through before it is left
    std::optional<clock::time_point> asked_at_; // of a question whose answer is not complete
    clock::time_point next_tick_ = clock::now();
    std::string answer_;
    std::optional<agent::snapshot> shown_;
    bool due_ = false; // whether there is something new to see
};

} // namespace

int agent::watch_agent(connection& watched, const std::function<void(const std::string&)>& print) {
    const terminal_abilities abilities = abilities_of_output();
    if (abilities.full_screen) {
        return top_screen(watched, abilities).run();
    }
    std::string answer;
    watched.ask(protocol::request::view, {}, [&](const std::string& text) { answer += text; });
    for (const std::string& line : picture_of(parsed(answer), {}, clock_text(), {})) {
        print(line + "\n");
    }
    return 0;
}
