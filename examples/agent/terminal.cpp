#include "terminal.h"

#include "text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <string_view>

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// Other screen, no wrapping at the right edge, no cursor; and all of it back.
constexpr std::string_view take_over = "\x1b[?1049h\x1b[?7l\x1b[?25l";
constexpr std::string_view give_back = "\x1b[0m\x1b[?25h\x1b[?7h\x1b[?1049l";

// Between these two a terminal that knows them shows no half-drawn picture.
constexpr std::string_view begin_picture = "\x1b[?2026h\x1b[H";
constexpr std::string_view end_picture = "\x1b[?2026l";

constexpr std::string_view clear_line = "\x1b[K";

std::string environment(const char* name) {
    const char* const value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): one thread
    return value == nullptr ? "" : value;
}

// Only asked where the terminal does not tell its size, as a serial line does.
int environment_number(const char* name, int otherwise) {
    int number = otherwise;
    agent::parse_number(environment(name), 1, 10000, number);
    return number;
}

} // namespace

bool agent::write_output(std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(STDOUT_FILENO, text.data(), text.size());
        if (count == -1 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return true;
}

agent::terminal_abilities agent::abilities_of_output() {
    terminal_abilities abilities;
    const std::string kind = environment("TERM");
    abilities.full_screen = ::isatty(STDOUT_FILENO) == 1 && !kind.empty() && kind != "dumb";
    abilities.colour = abilities.full_screen && environment("NO_COLOR").empty();
    std::setlocale(LC_CTYPE, ""); // NOLINT(concurrency-mt-unsafe): one thread
    const std::string_view codeset = ::nl_langinfo(CODESET); // NOLINT(concurrency-mt-unsafe): same
    abilities.unicode = abilities.full_screen && codeset == "UTF-8";
    return abilities;
}

agent::full_screen::full_screen() {
    has_keyboard_ = ::tcgetattr(STDIN_FILENO, &before_) == 0;
    enter();
}

agent::full_screen::~full_screen() {
    leave();
}

void agent::full_screen::leave() const {
    write_output(give_back);
    if (has_keyboard_) {
        ::tcsetattr(STDIN_FILENO, TCSADRAIN, &before_);
    }
}

void agent::full_screen::enter() const {
    if (has_keyboard_) {
        struct termios raw = before_;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO); // the keys that send signals stay
        raw.c_cc[VMIN] = 0;                                   // a read never waits
        raw.c_cc[VTIME] = 0;
        ::tcsetattr(STDIN_FILENO, TCSADRAIN, &raw);
    }
    write_output(take_over);
}

agent::terminal_size agent::full_screen::size() const {
    struct winsize window {};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 0 &&
        window.ws_row > 0) {
        return {window.ws_col, window.ws_row};
    }
    const terminal_size usual;
    return {environment_number("COLUMNS", usual.columns), environment_number("LINES", usual.rows)};
}

bool agent::full_screen::read_keys(std::string& keys) const {
    std::array<char, 64> typed{};
    const ssize_t count = has_keyboard_ ? ::read(STDIN_FILENO, typed.data(), typed.size()) : 0;
    keys.assign(typed.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return count > 0;
}

bool agent::full_screen::draw(const std::vector<std::string>& lines) const {
    std::string text(begin_picture);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        text += i == 0 ? "" : "\r\n";
        text += clear_line; // first: behind a full line it would take the last character
        text += lines[i];
    }
    text += end_picture;
    return write_output(text);
}
