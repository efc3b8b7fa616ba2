"""A terminal for programs that draw on one: a pseudo-terminal and as much of its screen as the
console's view needs."""

import codecs
import fcntl
import os
import re
import select
import struct
import subprocess
import termios
import time

from waiting import happened

SEQUENCE = re.compile(r"\x1b\[(\??)([0-9;]*)([A-Za-z])")


class Screen:
    """Draws what a program writes; refuses what it does not know."""

    def __init__(self, columns, rows):
        self.resize(columns, rows)
        self.modes = {}  # what was switched on and off: alternate screen, cursor, wrapping
        self.attributes = ""
        self.coloured = False  # whether anything ever had an attribute
        self.pending = ""

    def resize(self, columns, rows):
        self.columns, self.rows = columns, rows
        self.cells = [[" "] * columns for _ in range(rows)]
        self.x = self.y = 0

    def write(self, text):
        text = self.pending + text
        self.pending = ""
        at = 0
        while at < len(text):
            if text[at] == "\x1b":
                found = SEQUENCE.match(text, at)
                if found is None:  # it goes on in the next piece
                    self.pending = text[at:]
                    return
                self.control(*found.groups())
                at = found.end()
                continue
            self.put(text[at])
            at += 1

    def put(self, character):
        if character == "\r":
            self.x = 0
        elif character == "\n":
            self.y = min(self.y + 1, self.rows - 1)
        elif character == "\a":
            pass
        else:
            if self.x >= self.columns:
                if self.modes.get("7", True):
                    self.x, self.y = 0, min(self.y + 1, self.rows - 1)
                else:
                    self.x = self.columns - 1
            self.cells[self.y][self.x] = character
            self.x += 1

    def control(self, private, numbers, letter):
        if private and letter in "hl":
            self.modes[numbers] = letter == "h"
        elif letter == "H" and not numbers:
            self.x = self.y = 0
        elif letter == "K" and not numbers:
            at = min(self.x, self.columns - 1)
            self.cells[self.y][at:] = [" "] * (self.columns - at)
        elif letter == "m":
            self.attributes = "" if numbers in ("", "0") else numbers
            self.coloured = self.coloured or bool(self.attributes)
        else:
            raise AssertionError(f"the screen does not know ESC [ {private}{numbers} {letter}")

    def lines(self):
        return ["".join(row).rstrip() for row in self.cells]

    def text(self):
        return "\n".join(self.lines())


# Runs a program in the foreground as an interactive shell does and says how it ended; then keeps the
# terminal open until it has been looked at. A line lets a stopped program go on. The trap keeps the
# shell alive when the program dies of Ctrl-C; it does not pass to the program.
SHELL = """
set -m
trap : INT
end=$1 errors=$2 hold=$3
shift 3
"$@" 2>/proc/self/fd/$errors
echo $? >/proc/self/fd/$end
while read word </proc/self/fd/$hold
do
    fg >/dev/null
    echo $? >/proc/self/fd/$end
done
"""


class Terminal:
    """A program in the foreground of a terminal, whose shell waits for it."""

    def __init__(self, command, columns=80, rows=24, **environment):
        self.screen = Screen(columns, rows)
        self.decoder = codecs.getincrementaldecoder("utf-8")(errors="replace")
        self.master, slave = os.openpty()
        self.set_size(columns, rows)
        self.before = termios.tcgetattr(self.master)
        self.end, end = os.pipe()
        self.errors, errors = os.pipe()
        hold, self.hold = os.pipe()

        pipes = (end, errors, hold)
        self.shell = subprocess.Popen(
            ["sh", "-c", SHELL, "sh", *map(str, pipes), *command],
            stdin=slave,
            stdout=slave,
            stderr=subprocess.DEVNULL,
            env={**os.environ, "TERM": "xterm-256color", "LC_ALL": "C.UTF-8", **environment},
            start_new_session=True,
            pass_fds=pipes,
            preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0),
        )
        for descriptor in (slave, *pipes):
            os.close(descriptor)

    def close(self):
        """Ends what still runs, as a closed terminal window does."""
        for descriptor in (self.hold, self.master, self.end, self.errors):
            if descriptor != -1:
                os.close(descriptor)
        self.shell.wait(60)

    def hang_up(self):
        """Closes the terminal under the program."""
        os.close(self.master)
        self.master = -1

    def set_size(self, columns, rows):
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def resize(self, columns, rows):
        self.screen.resize(columns, rows)
        self.set_size(columns, rows)  # which sends SIGWINCH

    def type(self, keys):
        os.write(self.master, keys.encode())

    def resume(self):
        """Lets a stopped program go on in the foreground."""
        os.write(self.hold, b"\n")

    def update(self, seconds=0.0):
        """Draws what the program has written."""
        while happened(self.master, select.POLLIN, seconds):
            self.screen.write(self.decoder.decode(os.read(self.master, 65536)))
            seconds = 0.0

    def until(self, condition, what, limit=60.0):
        """Waits until the screen is as it should be, with no picture half drawn. The limit is for
        broken runs only."""
        deadline = time.monotonic() + limit
        while self.screen.modes.get("2026") or not condition(self.screen):
            if time.monotonic() > deadline:
                raise AssertionError(f"waited in vain: {what}\n{self.screen.text()}")
            self.update(0.05)

    def wait(self):
        """Waits until the program ends or stops, drawing its last words.

        Returns the exit code as a shell has it, and what was written to the standard error."""
        deadline = time.monotonic() + 60
        while not happened(self.end, select.POLLIN, 0.02):
            if time.monotonic() > deadline:
                raise AssertionError(f"the program does not end\n{self.screen.text()}")
            if self.master != -1:
                self.update()
        if self.master != -1:
            self.update()
        said = happened(self.errors, select.POLLIN, 0)
        return int(os.read(self.end, 100)), os.read(self.errors, 65536).decode() if said else ""

    def is_restored(self):
        """Whether the terminal is as it was: settings, screen, cursor, wrapping, attributes."""
        modes = self.screen.modes
        return (
            termios.tcgetattr(self.master) == self.before
            and modes.get("1049") is False
            and modes.get("25") is True
            and modes.get("7") is True
            and self.screen.attributes == ""
        )
