/// \file
/// The standard output, and the terminal that a full-screen view is drawn on.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <termios.h>

namespace agent {

struct terminal_size {
    int columns = 80;
    int rows = 24;
};

/// Writes all of a text to the standard output, whatever signals arrive.
///
/// \returns false when that cannot be done (`errno` tells why).
bool write_output(std::string_view text);

/// What may be written to the standard output.
struct terminal_abilities {
    bool full_screen = false; ///< a terminal with a cursor that can be moved
    bool colour = false;
    bool unicode = false;
};

/// Looks at the standard output and at TERM, NO_COLOR and the locale.
terminal_abilities abilities_of_output();

/// Takes the terminal over for as long as it lives: its other screen, no cursor, no echo, keys as
/// they are typed. Whatever ends its life leaves the terminal as it was.
class full_screen {
public:
    full_screen();
    ~full_screen();
    full_screen(const full_screen&) = delete;
    full_screen& operator=(const full_screen&) = delete;

    /// Gives the terminal back and takes it over again, around a stop of the process.
    void leave() const;
    void enter() const;

    terminal_size size() const;

    /// Whether the standard input is a terminal to read keys from.
    bool has_keyboard() const { return has_keyboard_; }

    /// What was typed since the last call.
    ///
    /// \returns false when nothing was.
    bool read_keys(std::string& keys) const;

    /// Shows these lines, as many as the screen has rows and none wider than it.
    ///
    /// \returns false when the terminal is gone.
    bool draw(const std::vector<std::string>& lines) const;

private:
    bool has_keyboard_ = false;
    struct termios before_ {};
};

} // namespace agent
