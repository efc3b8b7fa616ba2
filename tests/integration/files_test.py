"""Reading files through the agent: digests, contents, and what must not be read."""

import hashlib
import os
import socket
import subprocess

from harness import AS_ROOT, NOBODY, AgentTest, frame, main, read, resting_descriptors, until, write

PIECE = 96 * 1024  # what the agent reads at once
HUGE = 1 << 40  # of a file with a hole, which takes no room and longer to read than any test


class Files(AgentTest):
    def setUp(self):
        super().setUp()
        os.mkdir(self.file("files"))

    def start_with_files(self, **config):
        self.start(files="directory = files", **config)

    def make(self, name, content):
        path = self.file("files/" + name)
        with open(path, "wb") as stream:
            stream.write(content)
        return path

    def make_huge(self, name):
        os.truncate(self.make(name, b""), HUGE)

    def wait_until_read(self, name):
        """Waits until the agent has read from a file that it does not come to the end of."""
        process = f"/proc/{self.agent.pid}"
        path = self.file("files/" + name)

        def has_position():
            return any(
                os.path.realpath(f"{process}/fd/{number}") == path
                and not read(f"{process}/fdinfo/{number}").startswith("pos:\t0\n")
                for number in os.listdir(f"{process}/fd")
            )

        until(has_position, f"the agent reads {name}")

    def test_digests_and_contents_are_those_of_the_files(self):
        self.start_with_files()
        sizes = (0, 1, 2, 3, 64, 1000, PIECE - 1, PIECE, PIECE + 1, 3 * PIECE + 7, 2_000_000)
        for size in sizes:
            with self.subTest(size=size):
                content = os.urandom(size)
                self.make("some", content)
                digest = hashlib.md5(content).hexdigest()
                self.assertEqual(self.asked("md5", "some"), f"{digest}  some\n")
                result = subprocess.run(
                    self.console_command("cat", "some"), capture_output=True, check=True
                )
                self.assertTrue(result.stdout == content, "byte for byte")

    def test_contents_that_are_read_late_are_whole(self):
        self.start_with_files()
        content = os.urandom(2_000_000)
        self.make("large", content)
        console = subprocess.Popen(self.console_command("cat", "large"), stdout=subprocess.PIPE)
        self.others.append(console)
        channel = f"/proc/{console.pid}/wchan"
        until(lambda: console.poll() is not None or "pipe" in read(channel), "the pipe is full")
        output, _ = console.communicate(timeout=60)
        self.assertEqual(console.returncode, 0)
        self.assertTrue(output == content, "byte for byte")

    def test_contents_travel_as_base64(self):
        self.start_with_files()
        self.make("zeros", b"a\0b\n\xff")
        peer = self.peer()
        peer.send(frame(b"b", b"zeros"))
        self.assertEqual(peer.receive(), (b"B", b"YQBiCv8="))
        self.assertEqual(peer.receive(), (b"D", b""))

    def test_digest_can_be_checked_by_md5sum(self):
        self.start_with_files()
        os.makedirs(self.file("files/a b/c"))
        self.make("a b/c/d", b"deep down")
        line = self.asked("md5", "a b/c/d")
        result = subprocess.run(
            ["md5sum", "--check"], input=line, cwd=self.file("files"), text=True,
            capture_output=True, check=False, env={**os.environ, "LC_ALL": "C"},
        )
        self.assertEqual((result.returncode, result.stdout), (0, "a b/c/d: OK\n"))

    def test_only_regular_files_below_the_directory_are_read(self):
        write(self.file("outside"), "secret\n")
        self.make("plain", b"plain")
        os.mkdir(self.file("files/directory"))
        os.mkfifo(self.file("files/fifo"))
        os.symlink("plain", self.file("files/link"))
        os.symlink("..", self.file("files/up"))
        listener = socket.socket(socket.AF_UNIX)
        self.addCleanup(listener.close)
        listener.bind(self.file("files/socket"))
        self.start_with_files()
        cases = [
            ("missing", "No such file or directory"),
            ("missing/plain", "No such file or directory"),
            ("plain/below", "Not a directory"),
            ("directory", "a directory"),
            ("fifo", "not a regular file"),
            ("socket", "socket: "),
            ("link", "a symbolic link, which is not followed"),
            ("up/outside", "up/outside: "),
            ("../outside", "not a path below"),
            ("directory/../../outside", "not a path below"),
            (self.file("outside"), "not a path below"),
            ("./plain", "not a path below"),
            ("directory//plain", "not a path below"),
            ("plain/", "plain/: Not a directory"),
            ("directory/", "not a path below"),
            ("", "not a path below"),
            ("x" * 300, "File name too long"),
        ]
        for path, message in cases:
            for command in ("md5", "cat"):
                with self.subTest(command=command, path=path):
                    self.assert_refused(self.console(command, path), message)
        before = resting_descriptors(self.agent.pid)
        self.assert_refused(self.console("md5", "fifo"), "not a regular file")
        until(
            lambda: len(os.listdir(f"/proc/{self.agent.pid}/fd")) <= before,
            "no descriptor is left behind",
        )

    def test_unreadable_file_is_refused(self):
        os.chmod(self.make("locked", b"x"), 0)
        os.chmod(self.directory, 0o777)
        self.write_config(files="directory = files")
        if AS_ROOT:
            self.start_as(NOBODY)
        else:
            self.start()
        for command in ("md5", "cat"):
            self.assert_refused(self.console(command, "locked"), "locked: Permission denied")

    def test_without_a_directory_no_file_is_read(self):
        self.start()
        for command in ("md5", "cat"):
            self.assert_refused(self.console(command, "agent.conf"), "no files can be read")

    def test_missing_directory_refuses_the_start(self):
        self.write_config(files="directory = missing")
        self.assert_refused(self.run_agent("--foreground"), "files directory", "No such file")
        write(self.file("plain"), "")
        self.write_config(files="directory = plain")
        self.assert_refused(self.run_agent("--foreground"), "files directory", "Not a directory")

    def test_large_file_keeps_nobody_waiting(self):
        self.make_huge("huge")
        self.start_with_files()
        reader, other = self.peer(), self.peer()
        reader.send(frame(b"m", b"huge"))
        for _ in range(50):
            self.assertEqual(other.answer(b"j"), (b"", b"D"))
        reader.send(frame(b"h"))
        self.assertEqual(reader.receive(), (b"H", b""), "the digest is not ready, heart-beats are")
        reader.close()
        self.wait_for_log("left: ")
        self.assertEqual(other.answer(b"j"), (b"", b"D"))

    def test_peers_that_read_files_take_turns(self):
        self.make_huge("huge")
        content = os.urandom(3 * PIECE)
        self.make("small", content)
        self.start_with_files()
        self.peer().send(frame(b"m", b"huge"))
        small = [self.peer() for _ in range(5)]
        for peer in small:
            peer.send(frame(b"m", b"small"))
        for peer in small:
            line = f"{hashlib.md5(content).hexdigest()}  small\n"
            self.assertEqual(peer.receive(), (b"T", line.encode()))

    def test_slow_reader_holds_back_its_file_alone(self):
        self.make_huge("huge")
        self.start_with_files()
        slow, other = self.peer(), self.peer()
        slow.send(frame(b"b", b"huge"))
        for _ in range(50):
            self.assertEqual(other.answer(b"j"), (b"", b"D"))
        for _ in range(200):
            kind, body = slow.receive()
            self.assertEqual((kind, body.strip(b"A")), (b"B", b""))
        self.assertNotIn(f"{slow.name()} dropped", self.log())

    def test_file_that_becomes_shorter_is_an_error(self):
        self.make_huge("shrinking")
        self.start_with_files()
        peer = self.peer()
        peer.send(frame(b"m", b"shrinking"))
        self.wait_until_read("shrinking")
        os.truncate(self.file("files/shrinking"), 10)
        self.assertEqual(
            peer.receive(), (b"F", b"shrinking: became shorter while it was read")
        )
        self.assertEqual(peer.answer(b"j"), (b"", b"D"), "the connection goes on")

    def test_bytes_appended_meanwhile_do_not_count(self):
        content = os.urandom(5 * PIECE)
        path = self.make("growing", content)
        self.start_with_files()
        peer = self.peer()
        peer.send(frame(b"b", b"growing"))
        peer.receive()
        with open(path, "ab") as stream:
            stream.write(b"more")
        pieces = 1
        while peer.receive()[0] == b"B":
            pieces += 1
        self.assertEqual(pieces, 5)

    def test_question_during_a_file_drops_the_peer(self):
        self.make_huge("huge")
        self.start_with_files()
        peer = self.peer()
        peer.send(frame(b"m", b"huge") + frame(b"j"))
        self.assertIsNone(peer.receive())
        self.wait_for_log(f"{peer.name()} dropped: malformed: a question before the end")

    def test_agent_ends_in_the_middle_of_a_file(self):
        self.make_huge("huge")
        self.start_with_files()
        console = self.start_console("md5", "huge")
        self.wait_for_log("connected")
        self.asked("stop")
        self.assertEqual(self.agent.wait(60), 0)
        output, errors = console.communicate(timeout=60)
        self.assertEqual((console.returncode, output), (1, ""))
        self.assertIn("the agent is gone", errors)

    def test_no_file_is_read_on_once_the_agent_ends(self):
        self.make_huge("shrinking")
        self.start_with_files()
        reader = self.peer()
        reader.send(frame(b"b", b"shrinking"))
        self.wait_until_read("shrinking")
        self.assertEqual(self.peer().answer(b"q"), (b"the agent ends\n", b"D"))
        os.truncate(self.file("files/shrinking"), 10)
        while (message := reader.receive()) is not None:
            self.assertEqual(message[0], b"B", "what was read before still arrives")


if __name__ == "__main__":
    main()
