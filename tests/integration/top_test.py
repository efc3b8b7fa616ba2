"""kiv-console top, on terminals of many kinds and on none."""

import os
import re
import signal
import socket
import struct
import subprocess
import threading

from harness import AgentTest, children_of, frame, is_gone, main, read, until, write
from screen import Terminal

METER = r"[━╸─]+ +\d+\.\d%"
CLOCK = r"\d\d/\d\d/\d{4} \d\d:\d\d:\d\d$"


class FakeAgent:
    """Answers every question of a console with the same snapshot; with None it never does."""

    def __init__(self, snapshot, last_message=frame(b"D")):
        self.answer = None if snapshot is None else frame(b"T", snapshot.encode()) + last_message
        self.server = socket.create_server(("127.0.0.1", 0))
        self.port = self.server.getsockname()[1]
        self.connected = None
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()

    def serve(self):
        try:
            self.connected, _ = self.server.accept()
            buffer = b""
            while data := self.connected.recv(4096):
                buffer += data
                while len(buffer) >= 6:
                    (length,) = struct.unpack("<I", buffer[1:5])
                    kind, buffer = buffer[5:6], buffer[5 + length :]
                    if kind == b"h":
                        self.connected.sendall(frame(b"H"))
                    elif self.answer is not None:
                        self.connected.sendall(self.answer)
        except OSError:
            pass  # closed from one side or the other

    def close(self):
        for end in (self.server, self.connected):
            if end is not None:
                try:
                    end.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass
        self.thread.join(60)
        for end in (self.server, self.connected):
            if end is not None:
                end.close()


def snapshot(processors=2, jobs=0, running=()):
    """What an agent says whose processor N has a load of N percent."""
    lines = ["host somewhere", "pid 4711", "uptime 90061", "clients 1", "questions 12"]
    lines += [f"processor {number % 101}" for number in range(processors)]
    lines += ["memory 3221225472 8589934592"]
    lines += [
        f"job {int(number in running)}\tjob{number}\tstate {number}\t/bin/true {number}"
        for number in range(jobs)
    ]
    return "\n".join(lines) + "\n"


class Top(AgentTest):
    def terminal(self, *command, **more):
        terminal = Terminal(command or self.console_command("top"), **more)
        self.addCleanup(terminal.close)
        return terminal

    def watch(self, shown, **more):
        """A terminal that shows what a fake agent says, and that agent."""
        fake = FakeAgent(shown)
        self.addCleanup(fake.close)
        write(self.port_file, f"{fake.port}\n")
        terminal = self.terminal(**more)
        terminal.until(lambda screen: "kiv-agent on" in screen.text(), "the view is there")
        return terminal, fake

    def assert_restored(self, terminal):
        self.assertTrue(terminal.is_restored(), terminal.screen.modes)

    def test_bars_and_jobs_are_drawn_again_and_again(self):
        self.start(jobs="sleeper = /bin/sleep 600\ntrue = /bin/true")
        terminal = self.terminal()
        shown = terminal.screen
        terminal.until(
            lambda screen: re.search(rf"^memory  {METER}  [\d.]+ of [\d.]+ [GM]iB$",
                                     screen.text(), re.MULTILINE),
            "the memory is known",
        )
        lines = shown.lines()
        self.assertRegex(lines[0], rf"^kiv-agent on {socket.gethostname()} \(pid {self.agent.pid}\) +{CLOCK}")
        self.assertRegex(lines[1], r"^up 0 days, 0 hours, \d+ mins, \d+ secs +1 client, \d+ questions?$")
        meters = [line for line in lines if re.match(rf"cpu \d+ +{METER}$", line)]
        self.assertEqual(len(meters), os.sysconf("SC_NPROCESSORS_ONLN"))
        self.assertEqual(len({line.index("%") for line in meters}), 1, "they are aligned")
        self.assertIn("JOB      STATE        COMMAND", lines)
        self.assertIn("sleeper  not started  /bin/sleep 600", lines)
        self.assertEqual(lines[-1], "q: quit")
        self.start_console("run", "sleeper")
        terminal.until(
            lambda screen: re.search(r"^sleeper  running \(pid \d+\)  /bin/sleep 600$",
                                     screen.text(), re.MULTILINE),
            "the job is seen to run",
        )
        first = shown.lines()[0]
        terminal.until(lambda screen: screen.lines()[0] != first, "the clock goes on")
        self.assertEqual((shown.modes["1049"], shown.modes["25"]), (True, False))
        terminal.type("q")
        self.assertEqual(terminal.wait(), (0, ""))
        self.assert_restored(terminal)

    def test_however_it_ends_the_terminal_is_as_it_was(self):
        def send(number):
            def kill(terminal, _):
                console = list(children_of(terminal.shell.pid))
                os.kill(console[0], number)
            return kill

        endings = {
            "q": (lambda terminal, _: terminal.type("q"), 0, []),
            "Q": (lambda terminal, _: terminal.type("xyzQ"), 0, []),
            "Ctrl-C": (lambda terminal, _: terminal.type("\x03"), 128 + signal.SIGINT, []),
            "SIGTERM": (send(signal.SIGTERM), 128 + signal.SIGTERM, []),
            "SIGHUP": (send(signal.SIGHUP), 128 + signal.SIGHUP, []),
            "lost agent": (lambda _, fake: fake.close(), 1, ["kiv-console: the agent is gone"]),
        }
        for name, (end, code, errors) in endings.items():
            with self.subTest(name=name):
                terminal, fake = self.watch(snapshot())
                end(terminal, fake)
                actual_code, said = terminal.wait()
                self.assertEqual(actual_code, code)
                self.assertEqual([line for line in said.splitlines() if "kiv" in line], errors)
                self.assert_restored(terminal)

    def test_stopped_with_ctrl_z_it_gives_the_terminal_back_and_takes_it_again(self):
        terminal, _ = self.watch(snapshot())
        terminal.type("\x1a")
        self.assertEqual(terminal.wait()[0], 128 + signal.SIGTSTP)
        self.assert_restored(terminal)
        terminal.resume()
        terminal.until(lambda screen: screen.modes["1049"], "the view is back")
        first = terminal.screen.lines()[0]
        terminal.until(lambda screen: screen.lines()[0] != first, "the clock goes on")
        terminal.type("q")
        self.assertEqual(terminal.wait(), (0, ""))
        self.assert_restored(terminal)

    def test_closed_terminal_ends_it(self):
        terminal, _ = self.watch(snapshot())
        console = list(children_of(terminal.shell.pid))[0]
        terminal.hang_up()
        until(lambda: is_gone(console), "the console ends")

    def test_input_that_is_no_terminal_is_left_alone(self):
        fake = FakeAgent(snapshot())
        self.addCleanup(fake.close)
        command = [*self.console_command("top")[:1], "--port", str(fake.port), "top"]
        terminal = self.terminal("sh", "-c", 'exec "$@" </dev/null', "sh", *command)
        terminal.until(lambda screen: "kiv-agent on" in screen.text(), "the view is there")
        terminal.type("\x03")
        self.assertEqual(terminal.wait()[0], 128 + signal.SIGINT)
        self.assert_restored(terminal)

    def test_picture_follows_the_size_of_the_terminal(self):
        terminal, _ = self.watch(snapshot(processors=2, jobs=3, running=[2]))
        for columns, rows in ((132, 43), (40, 12), (79, 24), (24, 6)):
            with self.subTest(columns=columns, rows=rows):
                terminal.resize(columns, rows)
                terminal.until(
                    lambda screen: screen.lines()[-1] == "q: quit"
                    and screen.lines()[0].startswith("kiv-agent on")
                    and re.search(r"^memory  [━╸─]+ +37\.5%", screen.text(), re.MULTILINE),
                    "the whole picture is there",
                )
                self.assertEqual(len(re.findall(r"^cpu \d", terminal.screen.text(), re.MULTILINE)), 2)
        terminal.resize(10, 3)
        terminal.until(
            lambda screen: [line[:7] for line in screen.lines()] == ["kiv-age", "+2 more", "memory"],
            "what fits is there",
        )
        terminal.resize(1, 1)
        terminal.until(lambda screen: screen.text() == "k", "one character")

    def test_many_processors_share_rows(self):
        cases = [(2, 80, 24, True), (16, 80, 24, True), (64, 80, 24, True), (64, 200, 50, True),
                 (64, 60, 24, False), (8, 40, 10, True)]
        for processors, columns, rows, has_bars in cases:
            with self.subTest(processors=processors, columns=columns, rows=rows):
                terminal, _ = self.watch(snapshot(processors, jobs=20), columns=columns, rows=rows)
                text = terminal.screen.text()
                for number in range(processors):
                    bar = "[━╸─]{4,} *" if has_bars else " *"
                    self.assertRegex(text, rf"\b{number} +{bar}{number}(\.0)?%")
                self.assertIn("memory  ", text)
                self.assertRegex(text, r"(?m)^\+\d+ more jobs$")
                terminal.type("q")
                self.assertEqual(terminal.wait(), (0, ""))

    def test_processors_that_find_no_room_are_counted(self):
        terminal, _ = self.watch(snapshot(processors=200), columns=60, rows=12)
        shown = set(map(int, re.findall(r"\b(\d+) +\d+%", terminal.screen.text())))
        more = int(re.search(r"\+(\d+)( more)?$", terminal.screen.text(), re.MULTILINE)[1])
        self.assertEqual(shown, set(range(200 - more)))
        self.assertGreater(more, 0)

    def test_jobs_that_find_no_room_are_counted_and_running_ones_come_first(self):
        terminal, _ = self.watch(snapshot(jobs=100, running=[7, 99]))
        lines = terminal.screen.lines()
        title = lines.index("JOB    STATE     COMMAND")
        names = [line.split()[0] for line in lines[title + 1 : -2]]
        self.assertEqual(names[:4], ["job7", "job99", "job0", "job1"])
        self.assertEqual(lines[-2], f"+{100 - len(names)} more jobs")

    def test_colours_are_left_out_when_they_are_not_wanted(self):
        for environment, is_coloured in (({}, True), ({"NO_COLOR": "1"}, False), ({"NO_COLOR": ""}, True)):
            with self.subTest(environment=environment):
                terminal, _ = self.watch(snapshot(), **environment)
                self.assertEqual(terminal.screen.coloured, is_coloured)

    def test_locale_without_utf_8_gets_plain_bars(self):
        terminal, _ = self.watch(snapshot(processors=101), rows=120, LC_ALL="C")
        text = terminal.screen.text()
        self.assertTrue(text.isascii())
        self.assertRegex(text, r"(?m)^cpu 50  (#+)(\.+) +50\.0%")
        self.assertRegex(text, r"(?m)^cpu 100 #+ 100\.0%")

    def test_text_from_elsewhere_does_not_steer_the_terminal(self):
        hostile = snapshot().replace("somewhere", "\x1b]0;title\x07\x1b[2J\rhost")
        hostile += "job 1\t\x1b[31mred\tstate\x7f\tcommand\x1bc\n"
        terminal, _ = self.watch(hostile)  # whose screen knows none of these
        self.assertIn("kiv-agent on ?]0;title??[2J?host", terminal.screen.lines()[0])
        self.assertIn("?[31mred  state?  command?c", terminal.screen.lines())

    def test_agent_that_takes_its_time_is_told_and_can_be_left(self):
        terminal, fake = self.watch(snapshot())
        fake.answer = None
        terminal.until(
            lambda screen: re.match(r"q: quit - the agent has not answered for \d+ seconds$",
                                    screen.lines()[-1]),
            "the delay is told",
        )
        terminal.type("q")
        self.assertEqual(terminal.wait(), (0, ""))
        self.assert_restored(terminal)

    def test_agent_that_never_answers_can_be_left(self):
        fake = FakeAgent(None)
        self.addCleanup(fake.close)
        write(self.port_file, f"{fake.port}\n")
        terminal = self.terminal()
        terminal.until(lambda screen: screen.modes.get("1049"), "the terminal is taken over")
        terminal.type("q")
        self.assertEqual(terminal.wait(), (0, ""))
        self.assert_restored(terminal)

    def test_garbled_answers_are_errors(self):
        answers = ["processor many\n", "processor nan\n", "processor inf\n", "processor 100.1\n",
                   "processor -1\n", "pid 99999999999\n", "memory 1\n", "memory 2 1\n", "uptime\n"]
        for answer in answers:
            with self.subTest(answer=answer):
                fake = FakeAgent(answer)
                self.addCleanup(fake.close)
                write(self.port_file, f"{fake.port}\n")
                self.assert_refused(self.console("top"), "malformed")
                fake.close()
        terminal, fake = self.watch(snapshot())
        fake.answer = frame(b"T", b"pid x\n") + frame(b"D")
        self.assertEqual(
            terminal.wait(), (1, "kiv-console: the agent's answer is malformed: 'x' is not a number\n")
        )
        self.assert_restored(terminal)

    def test_lines_it_does_not_know_are_passed_over(self):
        terminal, _ = self.watch("colour blue\n" + snapshot() + "\nfuture\n")
        self.assertIn("cpu 1", terminal.screen.text())

    PLAIN = (
        r"^kiv-agent on \S+ \(pid \d+\) +" + CLOCK + r"\n"
        r"up 0 days, .*\n\n(cpu \d+ +#*\.* +\d+\.\d%\n)+"
        r"memory  (not known yet|#*\.* +\d+\.\d%  [\d.]+ of [\d.]+ [GM]iB)\n\n"
        r"JOB +STATE +COMMAND\n(job\d+ +not started  /bin/true with .*\n){30}$"
    ).replace(r"$\n", r"\n")

    def test_output_that_is_no_terminal_gets_one_plain_block(self):
        self.start(jobs="".join(f"job{i} = /bin/true with {'x' * 80}\n" for i in range(30)))
        self.assertRegex(self.asked("top"), self.PLAIN)

    def test_terminal_that_cannot_move_its_cursor_gets_one_plain_block(self):
        self.start(jobs="".join(f"job{i} = /bin/true with {i}\n" for i in range(30)))
        for kind in ("dumb", ""):
            with self.subTest(kind=kind):
                terminal = self.terminal(TERM=kind, columns=120, rows=80)
                self.assertEqual(terminal.wait(), (0, ""))
                self.assertEqual(terminal.screen.modes, {})
                self.assertRegex(terminal.screen.text().rstrip("\n") + "\n", self.PLAIN)


if __name__ == "__main__":
    main()
