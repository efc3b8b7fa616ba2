"""The agent and its console from outside: real programs, real files, real sockets.

Run it with KIV_AGENT and KIV_CONSOLE set to the two programs; "--list" prints the tests' names."""

import glob
import os
import re
import resource
import signal
import socket
import stat
import struct
import subprocess
import threading
import unittest

from harness import (
    AGENT,
    AS_ROOT,
    CONSOLE,
    INTERRUPTED_COPY,
    NOBODY,
    AgentTest,
    children_of,
    compressed_frame,
    frame,
    is_gone,
    main,
    read,
    resting_descriptors,
    until,
    write,
)


class Configuration(AgentTest):
    def test_missing_file_is_written_with_comments_and_can_be_used(self):
        result = self.run_agent("--check")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        text = read(self.config)
        for part in ("[agent]", "port = 7416", "[log]", "[jobs]", "# backup.user = backup"):
            self.assertIn(part, text)
        self.assertEqual(self.run_agent("--check").returncode, 0)
        self.assertEqual(read(self.config), text, "an existing file is left alone")

    def test_bad_values_are_refused_with_their_name(self):
        cases = [
            ("[agent]", "port", "65536"),
            ("[agent]", "port", "-1"),
            ("[agent]", "port", "80x"),
            ("[agent]", "port", ""),
            ("[agent]", "silence_limit", "1"),
            ("[agent]", "silence_limit", "soon"),
            ("[agent]", "max_clients", "0"),
            ("[agent]", "pid_file", ""),
            ("[agent]", "prot", "80"),
            ("[log]", "level", "4"),
            ("[log]", "rotation", "weekly"),
            ("[log]", "file", "a/b"),
            ("[log]", "colour", "red"),
            ("[jobs]", "list", "ls -l"),
            ("[jobs]", "list", ""),
            ("[jobs]", "no.user", "nobody"),
            ("[jobs]", "two words", "/bin/true"),
        ]
        for section, key, value in cases:
            with self.subTest(section=section, key=key, value=value):
                write(self.config, f"{section}\n{key} = {value}\n")
                self.assert_refused(
                    self.run_agent("--foreground"),
                    f"kiv-agent: {self.config}: {section}",
                    key.removesuffix(".user"),
                )

    def test_lines_that_mean_nothing_are_refused_with_their_number(self):
        cases = [
            ("[agent]\n[log\n", 2, "section header"),
            ("[agent]\nport 80\n", 2, "neither"),
            ("\n\n= 80\n", 3, "neither"),
            ("  [agent]\n", 1, "neither"),
            ("[agent]\nport = 0", 2, "line feed"),
            ("[agent]\n#" + "x" * 2046 + "\n", 2, "longer than 2046"),
            ("[agent]\nport = " + "0" * (1 << 20), 2, None),
            ("[agent]\n\0port = 0\n", 2, "zero byte"),
        ]
        for text, line, message in cases:
            with self.subTest(text=text[:40]):
                write(self.config, text)
                if message is None:
                    self.assert_refused(self.run_agent("--foreground"), "too large")
                else:
                    result = self.run_agent("--foreground")
                    self.assert_refused(result, f"{self.config}:{line}: ", message)

    def test_the_longest_line_that_loads_is_accepted(self):
        write(self.config, "[agent]\nport = 0\n#" + "x" * 2045 + "\n")
        self.assertEqual(self.run_agent("--check").returncode, 0)

    def test_binary_file_is_refused(self):
        with open(self.config, "wb") as stream:
            stream.write(bytes(range(256)) * 16)
        self.assert_refused(self.run_agent("--foreground"), self.config)

    def test_directory_is_refused(self):
        os.mkdir(self.config)
        self.assert_refused(self.run_agent("--foreground"), "a directory")

    def test_missing_directory_of_the_file_is_refused(self):
        self.config = self.file("missing/agent.conf")
        self.assert_refused(self.run_agent("--foreground"), "No such file or directory")

    def test_unreadable_file_is_refused(self):
        self.write_config()
        os.chmod(self.config, 0)
        os.chmod(self.directory, 0o755)
        identity = {"user": NOBODY} if AS_ROOT else {}
        try:
            result = self.run_agent("--check", **identity)
        except PermissionError:
            self.skipTest("the program is out of an ordinary user's reach")
        self.assert_refused(result, "Permission denied")

    def test_log_directory_that_cannot_be_made_is_refused(self):
        self.write_config(log=f"directory = {self.file('missing/log')}")
        self.assert_refused(self.run_agent("--foreground"), "log directory", "No such file")
        self.assertFalse(os.path.exists(self.file("agent.pid")), "what was made is removed")

    def test_log_file_that_cannot_be_opened_is_refused(self):
        os.makedirs(self.log_file)
        self.write_config()
        self.assert_refused(self.run_agent("--foreground"), "log file", "Is a directory")

    def test_missing_directory_of_the_port_file_is_refused(self):
        self.write_config(agent="port_file = missing/agent.port")
        self.assert_refused(self.run_agent("--foreground"), "port file", "No such file")

    def test_missing_directory_of_the_pid_file_is_refused(self):
        self.write_config(agent="pid_file = missing/agent.pid")
        self.assert_refused(self.run_agent("--foreground"), "pid file", "No such file")

    def test_two_files_of_one_name_are_refused(self):
        for agent, log in (
            ("port_file = agent.pid", ""),
            ("port_file = agent.conf", ""),
            ("pid_file = log/../log/agent.log", ""),
            ("", "directory = .\nfile = agent.conf"),
        ):
            with self.subTest(agent=agent, log=log):
                self.write_config(agent=agent, log=log)
                self.assert_refused(self.run_agent("--foreground"), "two of the agent's files")

    def test_help_and_version_go_to_standard_output(self):
        for program, name in ((AGENT, "kiv-agent"), (CONSOLE, "kiv-console")):
            for option, form in (("--help", rf"^usage: {name} "), ("--version", rf"^{name} \d+\.\d+\.\d+$")):
                with self.subTest(program=name, option=option):
                    result = subprocess.run(
                        [program, option], capture_output=True, text=True, check=False
                    )
                    self.assertEqual((result.returncode, result.stderr), (0, ""))
                    self.assertRegex(result.stdout, form)

    def test_usage_errors_give_exit_code_2(self):
        for options in ([], ["--config"], ["--config", self.config, "--what"]):
            with self.subTest(options=options):
                result = subprocess.run(
                    [AGENT, *options], capture_output=True, text=True, check=False
                )
                self.assert_refused(result, "usage: kiv-agent", code=2)


class Lifecycle(AgentTest):
    def test_service_manager_is_told_once_consoles_are_served(self):
        for what, name in {"file": self.file("notify"), "abstract": f"@{self.directory}"}.items():
            with self.subTest(what=what), socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
                manager.bind(name.replace("@", "\0"))
                manager.settimeout(60)
                self.write_config()
                self.agent = subprocess.Popen(
                    [AGENT, "--config", self.config, "--foreground"], stdout=subprocess.DEVNULL,
                    stderr=subprocess.PIPE, text=True, env=dict(os.environ, NOTIFY_SOCKET=name),
                )
                self.assertEqual(manager.recv(100), b"READY=1")
                self.asked("status")
                self.asked("stop")
                self.agent.communicate()

    def test_service_manager_is_not_told_of_a_start_that_is_refused(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind(self.file("notify"))
            self.write_config(agent="port = none")
            result = self.run_agent(
                "--foreground", env=dict(os.environ, NOTIFY_SOCKET=self.file("notify")))
            self.assert_refused(result, "port")
            with self.assertRaises(BlockingIOError):
                manager.recv(100, socket.MSG_DONTWAIT)

    def test_sigterm_ends_cleanly_and_removes_the_files(self):
        self.start()
        lock = f"/tmp/kiv-agent.{self.port()}.lock"
        until(lambda: read(self.file("agent.pid")) == f"{self.agent.pid}\n", "it writes its pid")
        self.assertTrue(os.path.exists(lock))
        self.agent.terminate()
        self.assertEqual(self.agent.wait(60), 0)
        for path in (self.port_file, self.file("agent.pid"), lock):
            self.assertFalse(os.path.exists(path), path)
        self.assertIn("ending: signal 15", self.log())
        self.assertTrue(self.log().endswith("[agent] ended\n"), "nothing queued is lost")

    def test_sigterm_right_after_the_port_is_known_ends_cleanly(self):
        for _ in range(20):
            self.start()
            self.agent.terminate()
            self.assertEqual(self.agent.wait(60), 0)
            self.agent.stderr.close()
            self.assertEqual(sorted(os.listdir(self.directory)), ["agent.conf", "log"])
        self.agent = None

    def test_ignored_hang_up_stays_ignored(self):
        self.write_config()
        self.agent = subprocess.Popen(
            ["sh", "-c", 'trap "" HUP; exec "$0" --config "$1" --foreground', AGENT, self.config],
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
        )
        until(lambda: os.path.exists(self.port_file), "the agent writes its port")
        self.agent.send_signal(signal.SIGHUP)
        self.assert_serves()
        self.agent.send_signal(signal.SIGINT)
        self.assertEqual(self.agent.wait(60), 0)
        self.assertIn("ending: signal 2", self.log())

    def test_stop_ends_the_agent_after_its_answer(self):
        self.start()
        self.assertEqual(self.asked("stop"), "the agent ends\n")
        self.assertEqual(self.agent.wait(60), 0)

    def test_taken_port_is_refused(self):
        with socket.create_server(("127.0.0.1", 0)) as taken:
            write(self.config, f"[agent]\nport = {taken.getsockname()[1]}\n")
            self.assert_refused(
                self.run_agent("--foreground"), "cannot listen on port", "Address already in use"
            )
        self.assertFalse(os.path.exists(self.port_file))

    def test_second_agent_of_a_configuration_is_refused_and_the_first_one_named(self):
        self.start()
        until(lambda: read(self.file("agent.pid")), "it writes its pid")
        result = self.run_agent("--foreground")
        self.assert_refused(result, f"already runs (pid {self.agent.pid})")
        self.assert_serves()

    def test_crashed_agent_does_not_block_the_next_start(self):
        self.start()
        self.agent.kill()
        self.agent.communicate()
        os.remove(self.port_file)
        self.start()
        self.assert_serves()

    def test_daemon_has_its_standard_descriptors_on_the_null_device(self):
        self.write_config()
        result = self.run_agent()
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assert_serves()  # at once: the port was there before the parent left
        pid = int(until(lambda: read(self.file("agent.pid")).strip(), "the daemon writes its pid"))
        for descriptor in (0, 1, 2):
            self.assertEqual(os.readlink(f"/proc/{pid}/fd/{descriptor}"), "/dev/null")
        self.assertEqual(os.readlink(f"/proc/{pid}/cwd"), "/")
        self.assertEqual(os.getsid(pid), pid, "a session of its own")
        self.wait_for_log(f"(pid {pid})")  # the log's thread was started after the fork
        self.asked("rotate")
        mask = os.umask(0)
        os.umask(mask)
        self.assertEqual(
            stat.S_IMODE(os.stat(self.log_file).st_mode), 0o666 & ~mask, "the mask is what it was"
        )
        os.kill(pid, signal.SIGTERM)
        until(lambda: is_gone(pid), "the daemon ends")
        self.assertTrue(self.log().endswith("[agent] ended\n"))

    def test_closed_standard_descriptors_are_not_taken_by_files(self):
        self.write_config()
        self.agent = subprocess.Popen(
            ["sh", "-c", 'exec "$0" --config "$1" --foreground <&- >&-', AGENT, self.config],
            stderr=subprocess.PIPE,
            text=True,
        )
        until(lambda: os.path.exists(self.port_file), "the agent writes its port")
        for descriptor in (0, 1):
            target = os.readlink(f"/proc/{self.agent.pid}/fd/{descriptor}")
            self.assertEqual(target, "/dev/null")

    def test_agent_and_console_serve_without_any_standard_descriptor(self):
        self.write_config()
        closed = 'exec "$@" <&- >&- 2>&-'
        self.agent = subprocess.Popen(
            ["sh", "-c", closed, "sh", AGENT, "--config", self.config, "--foreground"],
            stderr=subprocess.PIPE,
            text=True,
        )
        until(lambda: os.path.exists(self.port_file), "the agent writes its port")
        for descriptor in (0, 1, 2):
            target = os.readlink(f"/proc/{self.agent.pid}/fd/{descriptor}")
            self.assertEqual(target, "/dev/null")
        self.assert_serves()
        command = self.console_command("set", "seen", "yes")
        result = subprocess.run(["sh", "-c", closed, "sh", *command], timeout=60, check=False)
        self.assertEqual(result.returncode, 0)
        self.assertEqual(self.asked("get", "seen"), "yes\n")


class Console(AgentTest):
    def test_closed_output_is_an_error_and_not_its_connection(self):
        self.start()
        result = subprocess.run(
            ["sh", "-c", 'exec "$@" >&-', "sh", *self.console_command("status")],
            stderr=subprocess.PIPE,
            text=True,
            timeout=60,
            check=False,
        )
        self.assertEqual(result.returncode, 1)
        self.assertIn("the output cannot be written", result.stderr)
        self.asked("status")
        self.assertNotIn("malformed", self.log())

    def test_status_tells_host_and_counters(self):
        self.start()
        status = dict(line.split(": ", 1) for line in self.asked("status").splitlines())
        self.assertEqual(status["host"], socket.gethostname())
        self.assertEqual(int(status["pid"]), self.agent.pid)
        self.assertEqual(int(status["processors"]), os.sysconf("SC_NPROCESSORS_ONLN"))
        self.assertRegex(
            status["uptime"], r"^\d+ days, \d+ hours, \d+ mins, \d+ secs$"
        )
        self.assertEqual(status["configuration"], self.config)
        self.assertEqual(status["clients"], "1")
        before = int(status["bytes received"])
        again = dict(line.split(": ", 1) for line in self.asked("status").splitlines())
        self.assertGreaterEqual(int(again["bytes received"]), before + 6)
        self.assertEqual(int(again["questions"]), int(status["questions"]) + 1)

    def status(self):
        return dict(line.split(": ", 1) for line in self.asked("status").splitlines())

    def test_status_tells_a_load_for_every_processor(self):
        self.start()
        loads = self.status()["processor loads"].split()
        self.assertEqual(len(loads), min(os.sysconf("SC_NPROCESSORS_ONLN"), 64))
        for load in loads:
            self.assertRegex(load, r"^\d+\.\d%$")
            self.assertLessEqual(float(load[:-1]), 100)

    def test_status_tells_the_memory_as_the_system_counts_it(self):
        """Whatever the machine's size: the monitor's own figures are remainders of 4 GiB."""
        self.start()

        def figures_agree():
            found = re.match(r"([\d.]+) of ([\d.]+) (GiB|MiB)$", self.status()["memory"])
            if found is None:
                return False  # not known yet
            unit = 1024 if found[3] == "MiB" else 1024 * 1024
            used, amount = (float(number) * unit for number in found.groups()[:2])
            kib = dict(re.findall(r"^(\w+): +(\d+)", read("/proc/meminfo"), re.MULTILINE))
            listed = {name: int(kib[name]) for name in ("MemFree", "Active", "Inactive")}
            expected = sum(listed.values())
            expected_used = expected - listed["MemFree"]
            tolerance = expected / 50 + unit / 10
            return abs(amount - expected) < tolerance and abs(used - expected_used) < tolerance

        until(figures_agree, "the figures agree")

    def test_properties_are_set_and_read_back(self):
        self.start()
        self.assertEqual(self.asked("set", "colour", "two\nlines = 50%"), "")
        self.assertEqual(self.asked("get", "colour"), "two\nlines = 50%\n")
        self.asked("set", "colour", "")
        self.assertEqual(self.asked("get", "colour"), "\n")
        self.assert_refused(self.console("get", "Colour"), "there is no property Colour")

    def test_properties_are_listed_in_their_order_with_their_flags(self):
        self.start()
        self.asked("set", "zebra", "1")
        self.asked("set", "apple", "two\nlines\tand a tab")
        self.asked("set", "zebra", "changed in its place")
        self.asked("set", "long", "x" * 199 + "é" * 10)
        until(lambda: read(self.file("agent.pid")), "it writes its pid")
        lines = self.asked("properties").splitlines()
        self.assertRegex(lines[0], r"^-t agent\.version = \d+\.\d+\.\d+$")
        self.assertEqual(lines[1], f"-- agent.pid = {self.agent.pid}")
        self.assertEqual(lines[2], f"-- agent.port = {self.port()}")
        self.assertRegex(lines[3], r"^-- agent\.started = \d{10}$")
        self.assertEqual(
            lines[4:],
            [
                "ct zebra = changed in its place",
                r"ct apple = two\nlines?and a tab",
                "ct long = " + "x" * 199 + "...",
            ],
        )

    def test_properties_of_the_agent_are_read_only(self):
        self.start()
        self.assertEqual(self.asked("get", "agent.port"), f"{self.port()}\n")
        self.assert_refused(self.console("set", "agent.port", "1"), "agent.port is the agent's own")
        self.assertEqual(self.asked("get", "agent.port"), f"{self.port()}\n")

    def test_properties_have_limits(self):
        self.start()
        self.asked("set", "n" * 100, "v")
        for name in ("", "n" * 101):
            self.assert_refused(self.console("set", name, "v"), "1 to 100 bytes")
        peer = self.peer()
        for number in range(1000 - 5):
            peer.send(frame(b"p", b"%d\nv" % number))
        for _ in range(1000 - 5):
            self.assertEqual(peer.receive(), (b"D", b""))
        self.assert_refused(self.console("set", "one more", "v"), "1000 properties already")
        self.asked("set", "994", "changed all the same")
        self.assertEqual(len(self.asked("properties").splitlines()), 1000)

    def test_output_that_cannot_be_written_is_an_error(self):
        self.start()
        for command in ("status", "top"):
            with self.subTest(command=command), open("/dev/full", "wb") as full:
                result = subprocess.run(
                    self.console_command(command), stdout=full, stderr=subprocess.PIPE,
                    text=True, check=False,
                )
                self.assertEqual(result.returncode, 1)
                self.assertIn("cannot be written: No space left", result.stderr)

    def test_large_values_travel_whole(self):
        self.start()
        value = "".join(chr(33 + i * i % 90) for i in range(60000))
        self.asked("set", "large", value)
        self.assertEqual(self.asked("get", "large"), value + "\n")

    def test_usage_errors_give_exit_code_2(self):
        commands = [
            [],
            ["what"],
            ["status", "now"],
            ["tree"],
            ["set", "one"],
            ["set", "a\nb", "c"],
            ["config", "get", "one"],
            ["config"],
            ["tail", "x"],
            ["tail", "0"],
            ["tail", "1", "2"],
            ["--port", "0", "status"],
            ["--port", "65536", "status"],
        ]
        for words in commands:
            with self.subTest(words=words):
                result = subprocess.run(
                    [CONSOLE, *words], capture_output=True, text=True, check=False
                )
                self.assert_refused(result, "usage: kiv-console", code=2)

    def test_help_goes_to_standard_output(self):
        result = self.console("--help")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertIn("tail [-f] [LINES]", result.stdout)

    def test_missing_port_file_is_an_error(self):
        self.assert_refused(self.console("status"), self.port_file)

    def test_refused_connection_is_an_error(self):
        with socket.create_server(("127.0.0.1", 0)) as server:
            write(self.port_file, f"{server.getsockname()[1]}\n")
        self.assert_refused(self.console("status"), "no agent answers on port", "refused")

    def answer_console_with(self, data):
        """Runs a console against a server that says `data` to its question and leaves."""
        with socket.create_server(("127.0.0.1", 0)) as server:
            write(self.port_file, f"{server.getsockname()[1]}\n")
            process = self.start_console("status")
            connected, _ = server.accept()
            with connected:
                # All of it: what is left unread resets the connection.
                connected.recv(6, socket.MSG_WAITALL)
                connected.sendall(data)
            output, errors = process.communicate(timeout=60)
            return process.returncode, output, errors

    def test_agent_that_leaves_in_the_middle_is_an_error(self):
        code, output, errors = self.answer_console_with(frame(b"T", b"half an answer\n"))
        self.assertEqual((code, output), (1, "half an answer\n"))
        self.assertIn("the agent is gone", errors)

    def test_garbled_answers_are_errors(self):
        answers = [
            b"HTTP/1.0 400 Bad Request\r\n\r\n",
            b"\x01" + struct.pack("<I", 0xFFFFFFFF) + b"T",
            compressed_frame(b"T", b"", unpacked_length=0xFFFFFFFF, packed=b"x" * 20),
            compressed_frame(b"T", b"", unpacked_length=100, packed=b"not zlib at all"),
        ]
        for data in answers:
            with self.subTest(data=data):
                code, output, errors = self.answer_console_with(data)
                self.assertEqual((code, output), (1, ""))
                self.assertIn("malformed", errors)

    def test_tree_indents_children_below_their_parents(self):
        self.start(jobs="nest = /bin/sh -c \"sleep 600 & wait\"\n")
        self.start_console("run", "nest")
        shell = until(lambda: list(children_of(self.agent.pid)), "the job starts")[0]
        sleeper = until(lambda: list(children_of(shell)), "its child starts")[0]
        until(lambda: read(f"/proc/{sleeper}/comm") == "sleep\n", "it is sleep by now")
        self.assertEqual(
            self.asked("tree", str(self.agent.pid)),
            f"kiv-agent ({self.agent.pid})\n  sh ({shell})\n    sleep ({sleeper})\n",
        )

    def test_tree_of_no_process_is_an_error(self):
        self.start()
        for pid, message in (("999999999", "no process"), ("x", "process id"), ("0", "process id")):
            with self.subTest(pid=pid):
                self.assert_refused(self.console("tree", pid), message)


HAND_WRITTEN = """# Written by hand.

[agent]

# any free port
Port=0
silence_limit   =   60

[notes]
; not = a comment
greeting = hello

[log]
# quiet, please
rotation = none
level = 2

[jobs]
true = /bin/true

"""


class ConfigurationChanges(AgentTest):
    def setUp(self):
        super().setUp()
        write(self.config, HAND_WRITTEN)
        self.start()

    def test_get_shows_values_and_knows_what_is_missing(self):
        self.assertEqual(self.asked("config", "get", "notes", "GREETiNG"), "hello\n")
        self.assertEqual(self.asked("config", "get", "agent", "port"), "0\n")
        self.assert_refused(self.console("config", "get", "agent", "colour"), "no setting 'colour'")

    def test_set_is_saved_and_comments_survive(self):
        self.asked("config", "set", "agent", "silence_limit", "77")
        self.asked("config", "set", "notes", "greeting", "hello, world = 50%")
        text = read(self.config)
        for comment in ("# Written by hand.", "# any free port", "# quiet, please"):
            self.assertIn(comment + "\n", text)
        self.assertIn("silence_limit = 77\n", text)
        self.assertIn("greeting = hello, world = 50%\n", text)
        self.assertLess(text.index("[agent]"), text.index("[notes]"))
        self.assertEqual(self.asked("config", "get", "notes", "greeting"), "hello, world = 50%\n")
        self.asked("stop")
        self.agent.communicate()
        self.start()
        self.assertEqual(self.asked("config", "get", "agent", "silence_limit"), "77\n")

    def test_set_says_when_it_takes_effect(self):
        self.assertEqual(self.asked("config", "set", "log", "level", "3"), "saved\n")
        self.console("get", "x")
        self.wait_for_log("asks: get")
        later = "saved; it takes effect with the next start\n"
        self.assertEqual(self.asked("config", "set", "agent", "port", "7000"), later)

    def test_bad_changes_are_refused_and_the_file_stays(self):
        cases = [
            (("agent", "port", "70000"), "not a number from 0 to 65535"),
            (("agent", "prot", "80"), "no setting 'prot'"),
            (("log", "rotation", "never"), "not none, hourly"),
            (("notes", "x", "a\n[jobs]\nevil = /bin/sh"), "control characters"),
            (("notes", "a=b", "c"), "cannot name"),
            (("notes", "#a", "c"), "cannot name"),
            (("notes", "[jobs]", "c"), "cannot name"),
            (("jobs#", "a", "c"), "cannot name"),
            (("x]\n[jobs", "a", "c"), None),
            (("", "a", "c"), "needs a section"),
            (("notes", "long", "x" * 2047), "too long"),
        ]
        before = read(self.config)
        for words, message in cases:
            with self.subTest(words=words):
                if message is None:
                    self.assert_refused(self.console("config", "set", *words), code=2)
                else:
                    self.assert_refused(self.console("config", "set", *words), message)
                self.assertEqual(read(self.config), before)
        self.assertEqual(sorted(os.listdir(self.directory)),
                         ["agent.conf", "agent.pid", "agent.port", "log"])

    def test_jobs_and_file_names_are_never_changed_from_afar(self):
        before = read(self.config)
        names = [("jobs", "evil"), ("JOBS", "Evil"), ("agent", "port_file"), ("Agent", "PiD_file"),
                 ("log", "directory"), ("log", "file"), ("files", "directory")]
        for section, key in names:
            with self.subTest(section=section, key=key):
                result = self.console("config", "set", section, key, "/bin/true")
                self.assert_refused(result, "configuration file only")
        self.assertEqual(read(self.config), before)

    def test_edits_made_by_hand_meanwhile_are_kept(self):
        write(self.config, HAND_WRITTEN.replace("greeting = hello", "greeting = edited"))
        self.asked("config", "set", "notes", "other", "1")
        self.assertIn("greeting = edited\n", read(self.config))

    def test_change_on_top_of_a_broken_file_is_refused(self):
        broken = HAND_WRITTEN.replace("rotation = none", "rotation = sometimes")
        write(self.config, broken)
        self.assert_refused(self.console("config", "set", "notes", "other", "1"), "rotation")
        self.assertEqual(read(self.config), broken)

    def test_change_that_would_not_read_back_is_refused(self):
        # A new key lands at the end of the line before the next header when no empty line is there.
        crowded = "[agent]\nport = 0\n[log]\nrotation = none\n\n"
        write(self.config, crowded)
        result = self.console("config", "set", "agent", "max_clients", "5")
        self.assert_refused(result, "unchanged", "empty line")
        self.assertEqual(read(self.config), crowded)

    @unittest.skipUnless(AS_ROOT, "a small file system of its own needs root")
    def test_full_disk_costs_no_setting(self):
        if subprocess.run(["unshare", "--mount", "true"], stderr=subprocess.DEVNULL).returncode != 0:
            self.skipTest("no file system of its own")
        self.asked("stop")
        self.agent.communicate()
        # A file system of 64 KiB below, which only this agent sees; its files are reached from
        # here through its root.
        small = self.file("small")
        os.mkdir(small)
        os.rename(self.config, self.file("outside.conf"))
        self.agent = subprocess.Popen(
            ["unshare", "--mount", "sh", "-c",
             'mount -t tmpfs -o size=64k none "$1" && cp "$2" "$1/agent.conf" && '
             'exec "$0" --config "$1/agent.conf" --foreground',
             AGENT, small, self.file("outside.conf")],
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
        )
        inside = f"/proc/{self.agent.pid}/root{small}"
        self.port_file = f"{inside}/agent.port"
        until(lambda: os.path.exists(self.port_file) or self.agent.poll() is not None, "it runs")
        before = read(f"{inside}/agent.conf")
        with open(f"{inside}/ballast", "wb") as ballast:
            with self.assertRaises(OSError):
                while True:
                    os.write(ballast.fileno(), b"x" * 512)
        result = self.console("config", "set", "notes", "greeting", "x" * 1000)
        self.assert_refused(result, "agent.conf")
        self.assertEqual(read(f"{inside}/agent.conf"), before)
        self.assertFalse(os.path.exists(f"{inside}/agent.conf.new"))
        os.remove(f"{inside}/ballast")
        self.asked("config", "set", "notes", "greeting", "x" * 1000)
        self.assertIn("greeting = " + "x" * 1000, read(f"{inside}/agent.conf"))

    def test_signal_does_not_refuse_a_change(self):
        self.asked("stop")
        self.agent.communicate()
        self.start_process(env=self.loading(INTERRUPTED_COPY))
        self.asked("config", "set", "notes", "greeting", "again")
        self.assertIn("greeting = again\n", read(self.config))

    def test_link_to_the_file_stays_a_link(self):
        self.asked("stop")
        self.agent.communicate()
        os.rename(self.config, self.file("real.conf"))
        os.symlink("real.conf", self.config)
        self.start()
        self.asked("config", "set", "notes", "greeting", "linked")
        self.assertTrue(os.path.islink(self.config))
        self.assertIn("greeting = linked\n", read(self.file("real.conf")))

    def test_file_keeps_its_mode(self):
        os.chmod(self.config, 0o640)
        self.asked("config", "set", "notes", "greeting", "again")
        self.assertEqual(stat.S_IMODE(os.stat(self.config).st_mode), 0o640)


class Log(AgentTest):
    def test_tail_shows_the_last_lines(self):
        self.start()
        for number in range(5):
            self.asked("config", "set", "notes", "n", str(number))
        lines = self.asked("tail", "1000").splitlines()
        self.assertIn("listening on 127.0.0.1:", lines[0])
        sets = [line for line in lines if "set [notes]" in line]
        self.assertEqual([line[-1] for line in sets], list("01234"))
        for line in lines:
            self.assertRegex(line, r"^\d\d/\d\d/\d{4} \d\d:\d\d:\d\d - \[\w+\] ")
        self.assertEqual(len(self.asked("tail", "3").splitlines()), 3)
        self.assertEqual(len(self.asked("tail").splitlines()), 10)

    def test_long_tail_arrives_whole(self):
        self.start()
        text = "".join(f"line {i} of a long history\n" for i in range(30000))
        with open(self.log_file, "a", encoding="utf-8") as stream:
            stream.write(text)
        tail = self.asked("tail", "30000").splitlines()
        history = [line for line in tail if line.startswith("line ")]
        self.assertEqual(history, text.splitlines()[-len(history) :])
        self.assertGreater(len(history), 29990)
        peer = self.peer()
        peer.send(frame(b"l", b"30000"))
        peer.receive()
        self.assertEqual(peer.encoding, 2, "it is compressed by itself")

    def test_followed_tail_goes_on_across_a_rotation(self):
        self.start()
        follower = self.start_console("tail", "-f", "1")
        follower.stdout.readline()  # the last line so far
        self.asked("config", "set", "notes", "n", "before")
        self.read_until(follower, "n = before")
        rotated = self.asked("rotate").strip()
        self.asked("config", "set", "notes", "n", "after")
        self.read_until(follower, "log rotated to " + rotated)
        self.read_until(follower, "n = after")
        follower.terminate()

    def read_until(self, process, text):
        for line in process.stdout:
            if text in line:
                return
        self.fail(f"the console ended before: {text}")

    def test_rotate_starts_a_new_file_and_keeps_every_old_one(self):
        for mode in ("none", "hourly", "daily", "monthly"):
            with self.subTest(mode=mode):
                self.start(log=f"rotation = {mode}\nfile = {mode}.log")
                rotated = []
                for number in ("one", "two", "three"):
                    self.asked("config", "set", "notes", "n", number)
                    rotated.append(self.asked("rotate").strip())
                self.assertEqual(len(set(rotated)), 3)
                for path, number in zip(rotated, ("one", "two", "three")):
                    self.assertRegex(
                        path, rf"/log/\d\d\.\d\d\.\d{{4}}\.\d\d\.{mode}\.log\.[123]$"
                    )
                    self.assertIn(f"n = {number}", read(path))
                current = self.file(f"log/{mode}.log")
                self.assertNotIn("n = three", read(current))
                self.asked("stop")
                self.agent.communicate()
                os.remove(self.config)

    def test_full_disk_under_the_log_loses_nothing_else(self):
        os.mkdir(self.file("log"))
        os.symlink("/dev/full", self.log_file)
        self.start(jobs="hello = /bin/echo hello")
        for _ in range(20):
            self.asked("config", "set", "notes", "n", "x" * 1000)
        self.assertEqual(self.asked("run", "hello").splitlines()[0], "hello")
        self.assert_serves()

    def test_level_is_followed(self):
        self.start(log="level = 1")
        self.asked("status")
        self.asked("config", "set", "log", "level", "2")
        self.asked("status")
        self.wait_for_log("connected")
        self.assertEqual(self.log().split("set [log]")[0].count("connected"), 0)


class Peers(AgentTest):
    MALFORMED = {
        "unknown encoding": b"\x03",
        "text protocol": b"GET / HTTP/1.1\r\n\r\n",
        "length 0": b"\x01" + struct.pack("<I", 0),
        "no body but a length": b"\x00" + struct.pack("<I", 2),
        "largest length": b"\x01" + struct.pack("<I", 0xFFFFFFFF),
        "length above the limit": b"\x01" + struct.pack("<I", 100000),
        "too short to be compressed": b"\x02" + struct.pack("<I", 4) + b"s\0\0\0",
        "empty compressed body": b"\x02" + struct.pack("<I", 5) + b"s\0\0\0\0",
        "unpacks to 4 GB": b"\x02" + struct.pack("<I", 30) + b"s\xff\xff\xff\xff",
        "damaged compressed body": b"\x02" + struct.pack("<I", 15) + b"s\x0a\0\0\0" + b"x" * 10,
        "unknown message type": b"\x00" + struct.pack("<I", 1) + b"?",
    }

    def test_malformed_peers_are_dropped_and_named_while_others_go_on(self):
        self.start()
        other = self.peer()
        self.assertEqual(other.answer(b"p", b"k\nv"), (b"", b"D"))
        names = []
        for what, data in self.MALFORMED.items():
            with self.subTest(what=what):
                bad = self.peer()
                names.append(bad.name())
                bad.send(data)
                self.assertIsNone(bad.receive(), "the agent closes the connection")
                self.assertEqual(other.answer(b"g", b"k"), (b"v\n", b"D"))
        for name in names:
            self.wait_for_log(f"{name} dropped: malformed: ")

    def test_malformed_frame_after_good_ones_is_found(self):
        self.start()
        bad = self.peer()
        bad.send(frame(b"p", b"k\nv") + frame(b"g", b"k") + b"\x07")
        answers = []
        while (message := bad.receive()) is not None:
            answers.append(message)
        self.assertEqual(answers[:1], [(b"D", b"")][: len(answers)])
        self.wait_for_log(f"{bad.name()} dropped: malformed: unknown encoding 7")

    def test_compressed_questions_are_understood(self):
        self.start()
        peer = self.peer()
        value = b"v" * 50000
        peer.send(compressed_frame(b"p", b"k\n" + value))
        self.assertEqual(peer.receive(), (b"D", b""))
        self.assertEqual(peer.answer(b"g", b"k"), (value + b"\n", b"D"))

    def test_questions_may_arrive_byte_by_byte(self):
        self.start()
        peer = self.peer()
        peer.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for byte in frame(b"p", b"k\nv") + frame(b"g", b"k"):
            peer.send(bytes([byte]))
        self.assertEqual(peer.receive(), (b"D", b""))
        self.assertEqual(peer.receive(), (b"T", b"v\n"))

    def test_thousands_of_questions_sent_at_once_are_answered_in_their_order(self):
        self.start()
        eager, other = self.peer(), self.peer()
        count = 5000
        questions = b"".join(frame(b"g", b"%d" % number) for number in range(count))
        sender = threading.Thread(target=eager.send, args=(questions,))
        sender.start()
        self.assertEqual(other.answer(b"j"), (b"", b"D"))
        for number in range(count):
            expected = b"there is no property %d" % number
            self.assertEqual(eager.receive(), (b"F", expected))
        sender.join()
        self.assertEqual(other.answer(b"j"), (b"", b"D"))

    def test_question_before_the_end_of_an_open_answer_drops_the_peer(self):
        self.start()
        peer = self.peer()
        peer.send(frame(b"f", b"1"))
        peer.receive()
        peer.send(frame(b"s"))
        while peer.receive() is not None:
            pass
        self.wait_for_log(f"{peer.name()} dropped: malformed: a question before the end")

    def test_silent_peer_is_dropped_and_a_beating_one_stays(self):
        self.start(agent="silence_limit = 2")
        silent = self.peer()
        trickling = self.peer()
        beating = self.peer()
        trickle = iter(frame(b"p", b"k\n" + b"v" * 1000))
        stop = threading.Event()

        def beat():
            while not stop.wait(0.2):
                beating.send(frame(b"h"))
                try:
                    trickling.send(bytes([next(trickle)]))
                except OSError:
                    pass  # dropped, as it should be

        thread = threading.Thread(target=beat)
        thread.start()
        try:
            self.assertIsNone(silent.receive())
            self.assertIsNone(trickling.receive(), "bytes that form no message are silence")
        finally:
            stop.set()
            thread.join()
        self.wait_for_log(f"{silent.name()} dropped: silent for more than 2 seconds")
        self.wait_for_log(f"{trickling.name()} dropped: silent for more than 2 seconds")
        self.assertNotIn(f"{beating.name()} dropped", self.log())
        beating.send(frame(b"g", b"none"))
        while (message := beating.receive())[0] == b"H":
            pass
        self.assertEqual(message[0], b"F")

    def test_waiting_console_is_not_silent(self):
        self.start(agent="silence_limit = 2", jobs="long = /bin/sh -c \"sleep 4; echo awake\"")
        self.assertEqual(self.asked("run", "long").splitlines()[0], "awake")

    def test_clock_set_forward_ends_no_conversation(self):
        self.write_config(
            agent="silence_limit = 10",
            jobs='long = /bin/sh -c "echo begun; sleep 3; echo awake"',
        )
        environment = self.settable_clock()
        self.start_process(env=environment)
        console = self.start_console("run", "long", env=environment)
        self.assertEqual(console.stdout.readline(), "begun\n")
        self.set_clock(3600)
        output, errors = console.communicate(timeout=60)
        self.assertEqual((console.returncode, errors), (0, ""))
        self.assertIn("awake\n", output)
        self.wait_for_log("the clock was set")

    def test_clock_set_back_saves_no_silent_peer(self):
        self.write_config(agent="silence_limit = 2")
        self.start_process(env=self.settable_clock())
        silent = self.peer()
        self.set_clock(-3600)
        self.assertIsNone(silent.receive())
        self.wait_for_log(f"{silent.name()} dropped: silent for more than 2 seconds")

    def test_peers_over_the_limit_are_dropped_and_named(self):
        self.start(agent="max_clients = 2")
        first, second = self.peer(), self.peer()
        for peer in (first, second):
            self.assertEqual(peer.answer(b"j"), (b"", b"D"))
        third = self.peer()
        self.assertIsNone(third.receive())
        self.wait_for_log(f"{third.name()} dropped: 2 peers are connected already")
        first.close()
        self.wait_for_log("left: connection closed")
        self.assertEqual(self.peer().answer(b"j"), (b"", b"D"))

    def test_peer_that_leaves_answers_unread_is_dropped_and_named(self):
        self.start()
        other = self.peer()
        other.answer(b"p", b"k\n" + os.urandom(30000).hex().encode())
        greedy = self.peer()
        name = greedy.name()
        try:
            for _ in range(4000):
                greedy.send(frame(b"g", b"k"))
        except OSError:
            pass  # dropped already
        self.wait_for_log(f"{name} dropped: leaves too much unread")
        self.assertEqual(other.answer(b"j"), (b"", b"D"))

    def test_100_clients_at_once(self):
        self.start()
        peers = [self.peer() for _ in range(100)]
        for number, peer in enumerate(peers):
            peer.send(frame(b"p", b"%d\n%d" % (number, number * number)))
        for peer in peers:
            self.assertEqual(peer.receive(), (b"D", b""))
        for number, peer in enumerate(peers):
            peer.send(frame(b"g", b"%d" % (99 - number)))
        for number, peer in enumerate(peers):
            self.assertEqual(peer.receive(), (b"T", b"%d\n" % (99 - number) ** 2))
            self.assertEqual(peer.receive(), (b"D", b""))
        self.assertEqual(re.search(rb"clients: (\d+)", peers[0].answer(b"s")[0])[1], b"100")

    def test_consoles_that_come_at_once_are_all_served(self):
        self.start()
        consoles = [self.start_console("status") for _ in range(20)]
        for console in consoles:
            output, errors = console.communicate(timeout=60)
            self.assertEqual((console.returncode, errors), (0, ""))
            self.assertIn("uptime: ", output)

    def test_clients_wait_while_descriptors_are_exhausted_and_are_served_later(self):
        self.start()
        early = self.peer()
        self.assertEqual(early.answer(b"j"), (b"", b"D"))
        _, hard = resource.prlimit(self.agent.pid, resource.RLIMIT_NOFILE)
        open_now = resting_descriptors(self.agent.pid)
        resource.prlimit(self.agent.pid, resource.RLIMIT_NOFILE, (open_now, hard))
        late = self.peer()
        late.send(frame(b"j"))
        self.wait_for_log("cannot accept: Too many open files")
        self.assertEqual(early.answer(b"j"), (b"", b"D"))
        self.assertLess(self.log().count("cannot accept"), 60, "it does not try without pause")
        resource.prlimit(self.agent.pid, resource.RLIMIT_NOFILE, (open_now + 8, hard))
        self.assertEqual(late.receive(), (b"D", b""))


class Jobs(AgentTest):
    def pid_from(self, name):
        return int(until(lambda: os.path.exists(self.file(name)) and read(self.file(name)).strip(),
                         f"the job writes {name}"))

    def test_output_streams_line_by_line_while_others_are_served(self):
        os.mkfifo(self.file("gate"))
        self.start(
            jobs=f'gated = /bin/sh -c "echo first; read word < {self.file("gate")}; echo $word"'
        )
        console = self.start_console("run", "gated")
        self.assertEqual(console.stdout.readline(), "first\n")
        self.assert_serves()
        self.assertIn("gated: running (pid ", self.asked("jobs"))
        write(self.file("gate"), "second\n")
        self.assertEqual(console.stdout.read(), "second\njob gated ended with exit code 0\n")
        self.assertEqual(console.wait(60), 0)
        self.assertIn("gated: ended with exit code 0: /bin/sh -c", self.asked("jobs"))

    def test_console_ends_with_the_exit_code_of_the_job(self):
        self.start(
            jobs='three = /bin/sh -c "echo to stderr >&2; exit 3"\n'
            'killed = /bin/sh -c "kill -9 $$"'
        )
        result = self.console("run", "three")
        self.assertEqual(result.returncode, 3)
        self.assertEqual(result.stdout, "to stderr\njob three ended with exit code 3\n")
        result = self.console("run", "Killed")
        self.assertEqual(result.returncode, 128 + 9)
        self.assertEqual(result.stdout, "job killed was ended by signal 9\n")
        self.assertEqual(children_of(self.agent.pid), {}, "no zombie")

    def test_start_errors_are_reported(self):
        write(self.file("plain.txt"), "not a program\n")
        jobs = (
            f"missing = {self.file('missing')} x\ndirectory = {self.directory}\n"
            f"plain = {self.file('plain.txt')}"
        )
        if AS_ROOT:
            jobs += "\nstranger = /bin/true\nstranger.user = no-such-user"
        self.start(jobs=jobs)
        peer = self.peer()
        peer.answer(b"j")  # everything that the agent needs is open by now
        before = resting_descriptors(self.agent.pid)
        expected = {"missing": "No such file", "directory": "Permission denied",
                    "plain": "Permission denied"}
        if AS_ROOT:
            expected["stranger"] = "Unable to impersonate user no-such-user"
        for name, message in expected.items():
            with self.subTest(name=name):
                self.assert_refused(self.console("run", name), f"job {name} cannot be", message)
                self.assertRegex(self.asked("jobs"), f"{name}: not started: .*{message}")
        self.assert_refused(self.console("run", "unknown"), "no job unknown")
        self.assertEqual(children_of(self.agent.pid), {}, "no zombie")
        until(lambda: len(os.listdir(f"/proc/{self.agent.pid}/fd")) == before,
              "no descriptor is left behind")

    @unittest.skipUnless(AS_ROOT, "only root can start jobs as another account")
    def test_job_runs_as_its_user_with_a_clean_environment(self):
        os.environ["LD_KIV_TEST"] = "must not reach the job"
        self.start(jobs='who = /bin/sh -c "id -un; env"\nwho.user = nobody')
        del os.environ["LD_KIV_TEST"]
        lines = self.asked("run", "who").splitlines()
        self.assertEqual(lines[0], "nobody")
        self.assertIn("USER=nobody", lines)
        self.assertIn("KIV_JOB=who", lines)
        self.assertFalse([line for line in lines if line.startswith("LD_")])

    def test_job_inherits_nothing_but_its_pipes(self):
        os.mkfifo(self.file("gate"))
        self.start(
            jobs=f'holder = /bin/sh -c "echo up; cat {self.file("gate")}"\n'
            'list = /bin/ls -l /proc/self/fd'
        )
        holder = self.start_console("run", "holder")
        holder.stdout.readline()
        listing = self.asked("run", "list")
        descriptors = re.findall(r" (\d+) -> (\S+)", listing)
        self.assertEqual([number for number, _ in descriptors], ["0", "1", "2", "3"])
        self.assertRegex(descriptors[3][1], r"/proc/\d+/fd", "what ls itself has open")
        write(self.file("gate"), "")
        holder.wait(60)

    def test_job_that_finds_no_descriptors_is_refused_and_leaves_none_behind(self):
        self.start(jobs="true = /bin/true")
        peer = self.peer()
        peer.answer(b"g", b"none")  # a sanitizer needs descriptors to look at its first exception
        descriptors = f"/proc/{self.agent.pid}/fd"
        before = resting_descriptors(self.agent.pid)
        limits = resource.prlimit(self.agent.pid, resource.RLIMIT_NOFILE)
        kinds = []
        for spare in range(8):
            resource.prlimit(self.agent.pid, resource.RLIMIT_NOFILE, (before + spare, limits[1]))
            text, kind = peer.answer(b"r", b"true")
            kinds.append(kind)
            expected = b"cannot be started: no " if kind == b"F" else b"ended with exit code 0"
            self.assertIn(expected, text)
            self.assertEqual(len(os.listdir(descriptors)), before)
        self.assertEqual((kinds[0], kinds[-1]), (b"F", b"D"))
        resource.prlimit(self.agent.pid, resource.RLIMIT_NOFILE, limits)
        self.assert_serves()

    @unittest.skipUnless(AS_ROOT, "a user with a process limit of its own needs root")
    def test_agent_ends_when_the_system_grants_no_process_and_can_be_started_again(self):
        self.write_config(jobs="true = /bin/true")
        os.chmod(self.directory, 0o777)
        user = 0x4B1A0000 + os.getpid() % 0x10000  # nobody else's, so the limit counts these alone
        self.start_as(user)
        self.assertEqual(self.asked("run", "true"), "job true ended with exit code 0\n")
        subprocess.run(
            ["prlimit", "--pid", str(self.agent.pid), "--nproc=1:1"],
            user=user, group=user, check=True,
        )
        self.assert_refused(self.console("run", "true"), "the agent is gone")
        _, errors = self.agent.communicate(timeout=60)
        self.assertEqual((self.agent.returncode, errors), (1, ""), "as a failed fork ends a host")
        os.remove(self.port_file)
        self.start_as(user)
        self.assertEqual(self.asked("run", "true"), "job true ended with exit code 0\n")

    def test_standard_input_of_a_job_is_at_its_end(self):
        self.start(jobs="cat = /bin/cat")
        self.assertEqual(self.asked("run", "cat"), "job cat ended with exit code 0\n")

    def test_kill_ends_the_whole_tree(self):
        script = (
            f"echo $$ > {self.file('top')}; "
            f"(sleep 600 & echo $! > {self.file('leaf')}; wait) & wait"
        )
        self.start(jobs=f'deep = /bin/sh -c "{script}"')
        console = self.start_console("run", "deep")
        pids = [self.pid_from("top"), self.pid_from("leaf")]
        pids += children_of(pids[0])
        self.assertRegex(self.asked("kill", "deep"), r"^killed [34] processes\n$")
        for pid in pids:
            until(lambda pid=pid: is_gone(pid), f"process {pid} ends")
        self.assertEqual(console.stdout.read(), "job deep was killed\n")
        self.assertEqual(console.wait(60), 128 + 9)
        self.assertEqual(children_of(self.agent.pid), {}, "no zombie")
        self.assert_refused(self.console("kill", "deep"), "job deep does not run")
        self.assertIn("deep: was killed: ", self.asked("jobs"))

    def test_console_that_leaves_does_not_stop_its_job(self):
        os.mkfifo(self.file("gate"))
        script = f"echo up; read word < {self.file('gate')}; echo unheard; echo $word > {self.file('done')}"
        self.start(jobs=f'lonely = /bin/sh -c "{script}"')
        console = self.start_console("run", "lonely")
        console.stdout.readline()
        console.kill()
        console.wait()
        self.wait_for_log("left: ")
        self.assertIn("lonely: running", self.asked("jobs"))
        write(self.file("gate"), "end\n")
        until(lambda: "ended with exit code 0" in self.asked("jobs"), "the job ends")
        self.assertEqual(read(self.file("done")), "end\n")
        self.assertEqual(children_of(self.agent.pid), {}, "no zombie")

    def test_running_job_is_not_started_twice(self):
        self.start(jobs="sleeper = /bin/sleep 600")
        self.start_console("run", "sleeper")
        until(lambda: "running" in self.asked("jobs"), "the job runs")
        self.assert_refused(self.console("run", "sleeper"), "runs already (pid ")
        self.asked("kill", "sleeper")

    def test_jobs_run_side_by_side(self):
        jobs = "".join(f'job{i} = /bin/sh -c "echo {i}; exit {i}"\n' for i in range(10))
        self.start(jobs=jobs)
        consoles = [self.start_console("run", f"job{i}") for i in range(10)]
        for number, console in enumerate(consoles):
            output, errors = console.communicate(timeout=60)
            self.assertEqual(errors, "")
            self.assertEqual(output, f"{number}\njob job{number} ended with exit code {number}\n")
            self.assertEqual(console.returncode, number)

    def start_flood(self):
        """Starts a job that prints 27 MB, which hardly compress, for a peer that reads nothing."""
        with open(self.file("random"), "wb") as stream:
            stream.write(os.urandom(20_000_000))
        script = f"base64 {self.file('random')}; echo over > {self.file('over')}"
        self.start(jobs=f'flood = /bin/sh -c "{script}"')
        slow = self.peer()
        slow.send(frame(b"r", b"flood"))
        # All that lies between fills up, and then the job waits in its write.
        until(lambda: "flood: running" in self.asked("jobs"), "the job runs")
        shell = list(children_of(self.agent.pid))[0]
        writer = until(lambda: list(children_of(shell)), "it prints")[0]
        until(lambda: self.is_held_back(writer), "the job waits")
        return slow

    def is_held_back(self, pid):
        """Whether a process waits in a write that the agent, awake, does not let go on."""
        if "pipe" not in read(f"/proc/{pid}/wchan"):
            return False
        before = read(f"/proc/{pid}/io")
        self.assert_serves()
        return read(f"/proc/{pid}/io") == before

    def test_flooding_job_waits_for_a_slow_peer_and_loses_nothing(self):
        slow = self.start_flood()
        self.assertFalse(os.path.exists(self.file("over")))
        parts = []
        while (message := slow.receive()) is not None and message[0] != b"D":
            parts.append(message[1])
        printed = b"".join(parts)
        expected = subprocess.run(
            ["base64", self.file("random")], capture_output=True, check=True
        ).stdout
        expected += b"job flood ended with exit code 0\n"
        self.assertTrue(printed == expected, "the output arrives as it was printed")

    def test_flooding_job_goes_on_when_its_slow_peer_leaves(self):
        slow = self.start_flood()
        slow.close()
        until(lambda: os.path.exists(self.file("over")), "the job gets to its end")
        until(lambda: "flood: ended with exit code 0" in self.asked("jobs"), "it is over")

    def test_job_that_closes_its_output_is_waited_for(self):
        os.mkfifo(self.file("gate"))
        script = f"exec >&- 2>&-; read word < {self.file('gate')}; exit 4"
        self.start(jobs=f'mute = /bin/sh -c "{script}"')
        console = self.start_console("run", "mute")
        until(lambda: "mute: running" in self.asked("jobs"), "the job runs")
        write(self.file("gate"), "go\n")
        self.assertEqual(console.communicate(timeout=60)[0], "job mute ended with exit code 4\n")
        self.assertEqual(console.returncode, 4)

    def test_grandchild_with_the_output_does_not_hold_the_job(self):
        script = f"sleep 600 & echo $! > {self.file('left')}; echo bye"
        self.start(jobs=f'parent = /bin/sh -c "{script}"')
        self.assertEqual(self.asked("run", "parent"), "bye\njob parent ended with exit code 0\n")
        left = self.pid_from("left")
        os.kill(left, signal.SIGKILL)
        until(lambda: is_gone(left), "the grandchild ends")

    def test_unfinished_zero_and_very_long_lines_arrive(self):
        script = r"printf 'a\000b\n'; head -c 300000 /dev/zero | tr '\000' x; printf tail"
        self.start(jobs=f'odd = /bin/sh -c "{script}"')
        self.assertEqual(
            self.asked("run", "odd"),
            "a?b\n" + "x" * 300000 + "tail\njob odd ended with exit code 0\n",
        )

    def test_sigterm_ends_running_jobs(self):
        script = f"echo $$ > {self.file('top')}; sleep 600 & echo $! > {self.file('leaf')}; wait"
        self.start(jobs=f'endless = /bin/sh -c "{script}"')
        console = self.start_console("run", "endless")
        pids = [self.pid_from("top"), self.pid_from("leaf")]
        self.agent.terminate()
        self.assertEqual(self.agent.wait(60), 0)
        for pid in pids:
            until(lambda pid=pid: is_gone(pid), f"process {pid} ends")
        self.assertEqual(console.communicate(timeout=60)[0], "job endless was killed because the agent ends\n")
        self.assertIn("job endless was killed", self.log())


if __name__ == "__main__":
    main()
