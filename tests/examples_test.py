"""Runs each example program as its reader would, and checks what it shows.

usage: examples_test.py DIRECTORY_OF_THE_PROGRAMS
"""

import base64
import hashlib
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time
import unittest

PROGRAMS = pathlib.Path(sys.argv[1]).resolve()


class ExamplesTest(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.scratch = pathlib.Path(scratch.name)

    def run_example(self, name, *arguments, code=0):
        done = subprocess.run([PROGRAMS / name, *map(str, arguments)], cwd=self.scratch, text=True,
                              capture_output=True, timeout=120, check=False)
        self.assertEqual(done.returncode, code, done.stderr)
        return done.stdout

    def test_config_edit_keeps_comments_and_order(self):
        file = self.scratch / "host.conf"
        file.write_text("# by hand\n[Network]\nPort = 80\n# the end\n")
        shown = self.run_example("config_edit", file, "network", "port", "8080")
        self.assertEqual(shown, "[network] port: 80 -> 8080\n")
        self.assertIn("# by hand\n[Network]\nport = 8080\n# the end\n", file.read_text())

    def test_daemon_skeleton_runs_until_a_signal_ends_it(self):
        name = f"skeleton-test-{os.getpid()}"
        log = self.scratch / f"{name}.log"
        file = self.scratch / "daemon.conf"
        file.write_text(f"[daemon]\nname = {name}\n[log]\ndirectory = {self.scratch}\n")
        daemon = subprocess.Popen([PROGRAMS / "daemon_skeleton", file, "--foreground"])
        self.addCleanup(daemon.kill)
        deadline = time.monotonic() + 60
        while not log.exists():  # its signals are blocked from before that on
            self.assertLess(time.monotonic(), deadline, "the daemon never opened its log")
            time.sleep(0.02)
        daemon.send_signal(signal.SIGTERM)
        self.assertEqual(daemon.wait(60), 0)
        text = log.read_text()
        self.assertIn(f"[daemon] running as pid {daemon.pid}\n", text)
        self.assertIn("[daemon] ending on signal 15\n", text)

    def test_daemon_skeleton_refuses_a_missing_file(self):
        self.run_example("daemon_skeleton", self.scratch / "missing.conf", code=1)

    def test_escape_text_writes_each_form(self):
        self.assertEqual(self.run_example("escape_text", "url", "a b+c"), "a+b%2Bc\n")
        self.assertEqual(self.run_example("escape_text", "html", "<b>&"), "&lt;b&gt;&amp;\n")
        self.assertEqual(self.run_example("escape_text", "SQL", "O'Brien"), "'O''Brien'\n")
        self.assertEqual(self.run_example("escape_text", "from-url", "a+b%2Bc"), "a b+c\n")
        self.run_example("escape_text", "xml", "a", code=2)

    def test_file_digest_equals_another_implementation(self):
        file = self.scratch / "data"
        file.write_bytes(bytes(range(256)) * 1000)
        digest = hashlib.md5(file.read_bytes())
        shown = self.run_example("file_digest", file).splitlines()
        self.assertEqual(shown[0], f"{digest.hexdigest()}  {file}")
        self.assertEqual(shown[1], base64.b64encode(digest.digest()).decode())

    def test_hello_logger_writes_its_line(self):
        self.run_example("hello_logger")
        self.assertRegex((self.scratch / "logs" / "default.log").read_text(),
                         r" - \[hello\] running as pid \d+\n$")

    def test_message_echo_gets_every_answer(self):
        self.assertEqual(self.run_example("message_echo", 3000), "3000 answers\n")

    def test_property_sheet_keeps_order_and_marks(self):
        shown = self.run_example("property_sheet", "color=red", "!verbose=0", "color=blue")
        self.assertEqual(shown, "arguments = 3\ncolor = blue\nverbose = 0 (user)\nverbose is off\n")

    def test_rotating_log_loses_no_line(self):
        shown = self.run_example("rotating_log", self.scratch, 500)
        self.assertTrue(shown.endswith("wrote 2000 lines\n"))
        # At most one file was finished, if the hour ended meanwhile.
        lines = [line for file in self.scratch.glob("*work.log")
                 for line in file.read_text().splitlines()]
        for worker in range(4):
            mine = [line for line in lines if f"[worker] worker {worker}," in line]
            self.assertEqual(len(mine), 500)

    def test_run_job_shows_output_and_ends_with_the_exit_code(self):
        shown = self.run_example("run_job", 60, "/bin/sh", '-c "echo one; echo two >&2; exit 7"',
                                 code=7)
        self.assertEqual(shown, "one\ntwo\n")

    def test_run_job_kills_what_runs_too_long(self):
        self.run_example("run_job", 1, "/bin/sh", '-c "sleep 600 & wait"', code=124)

    def test_run_job_tells_why_a_program_does_not_start(self):
        self.run_example("run_job", 60, "/no/such/program", code=1)

    def test_shared_table_readers_see_every_entry(self):
        self.assertEqual(self.run_example("shared_table"), "a reader saw 1000 entries\n" * 2)

    def test_watch_system_names_the_largest_file(self):
        (self.scratch / "small").write_bytes(b"1")
        (self.scratch / "large").write_bytes(b"12345")
        self.assertRegex(self.run_example("watch_system", self.scratch, 1),
                         r"^\d\d:\d\d:\d\d  load % [0-9. e-]+ largest large\n$")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
