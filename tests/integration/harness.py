"""What the tests of the agent lean on: starting one, asking it through its console, and talking to
it directly in its own frames, well-formed or not."""

import ctypes
import os
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import zlib

AGENT = os.environ.get("KIV_AGENT")
CONSOLE = os.environ.get("KIV_CONSOLE")
INTERRUPTED_COPY = os.environ.get("KIV_INTERRUPTED_COPY")
SETTABLE_CLOCK = os.environ.get("KIV_SETTABLE_CLOCK")

AS_ROOT = os.geteuid() == 0
NOBODY = 65534

PR_SET_CHILD_SUBREAPER = 36


def until(condition, what, limit=60.0):
    """Polls a condition until it holds and returns its value. The limit is for broken runs only."""
    deadline = time.monotonic() + limit
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError("waited in vain: " + what)
        time.sleep(0.005)


def resting_descriptors(pid):
    """How many descriptors an agent has, once its sampler has opened the files that it keeps."""
    directory = f"/proc/{pid}/fd"

    def sampler_runs():
        targets = set()
        for number in os.listdir(directory):
            try:
                targets.add(os.readlink(os.path.join(directory, number)))
            except FileNotFoundError:
                pass  # closed meanwhile
        return targets.issuperset({"/proc/meminfo", "/proc/stat"})

    until(sampler_runs, "the sampler runs")
    return len(os.listdir(directory))


def read(path):
    with open(path, encoding="utf-8", errors="replace") as stream:
        return stream.read()


def write(path, text):
    with open(path, "w", encoding="utf-8") as stream:
        stream.write(text)


def adopt_orphans():
    """Makes this process the parent of whatever its descendants leave behind, so that it can wait
    for it. A container's first process may never do so."""
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)


def is_gone(pid):
    """Whether a process has ended; reaps it when it is ours."""
    try:
        os.waitpid(pid, os.WNOHANG)
    except ChildProcessError:
        pass
    return not os.path.exists(f"/proc/{pid}")


def children_of(pid):
    """The children of a process by pid, with the letter of their state."""
    children = {}
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            stat = read(f"/proc/{name}/stat")
        except OSError:
            continue  # it has just ended
        state, parent = stat.rpartition(")")[2].split()[:2]
        if int(parent) == pid:
            children[int(name)] = state
    return children


def frame(message_type, body=b""):
    """A frame of the plain encodings."""
    payload = message_type + body
    return bytes([1 if body else 0]) + struct.pack("<I", len(payload)) + payload


def compressed_frame(message_type, body, unpacked_length=None, packed=None):
    """A frame of the compressed encoding, honest unless told otherwise."""
    packed = zlib.compress(body) if packed is None else packed
    length = len(body) if unpacked_length is None else unpacked_length
    payload = message_type + struct.pack("<I", length) + packed
    return b"\x02" + struct.pack("<I", len(payload)) + payload


class Peer:
    """A bare connection to an agent."""

    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port))
        self.socket.settimeout(60)
        self.buffer = b""
        self.encoding = None  # of the last message received

    def close(self):
        self.socket.close()

    def name(self):
        address, port = self.socket.getsockname()
        return f"{address}:{port}"

    def send(self, data):
        self.socket.sendall(data)

    def receive(self):
        """The next message as (type, body), or None when the agent closed the connection."""
        while True:
            if len(self.buffer) >= 6:
                encoding = self.buffer[0]
                (length,) = struct.unpack("<I", self.buffer[1:5])
                if len(self.buffer) >= 5 + length:
                    payload = self.buffer[5 : 5 + length]
                    self.buffer = self.buffer[5 + length :]
                    self.encoding = encoding
                    body = zlib.decompress(payload[5:]) if encoding == 2 else payload[1:]
                    return payload[:1], body
            try:
                data = self.socket.recv(65536)
            except ConnectionResetError:
                data = b""
            if not data:
                return None
            self.buffer += data

    def answer(self, message_type, body=b""):
        """Asks and returns the text of the answer with its last message's type."""
        self.send(frame(message_type, body))
        text = b""
        while True:
            message = self.receive()
            if message is None:
                return text, None
            kind, body = message
            if kind == b"T":
                text += body
            elif kind in b"DF":
                return text + body, kind


class AgentTest(unittest.TestCase):
    """A directory of its own for every test, and the end of every agent that it started."""

    def setUp(self):
        self.directory = os.path.realpath(tempfile.mkdtemp(prefix="kiv-agent-"))
        self.addCleanup(shutil.rmtree, self.directory)  # also after a test that failed
        self.config = self.file("agent.conf")
        self.port_file = self.file("agent.port")
        self.log_file = self.file("log/agent.log")
        self.agent = None
        self.others = []
        adopt_orphans()

    def tearDown(self):
        for process in self.others:
            if process.poll() is None:
                process.kill()
            process.communicate()
        if self.agent is not None:
            if self.agent.poll() is None:
                self.agent.terminate()
            _, errors = self.agent.communicate(timeout=60)
            self.assertEqual(errors, "", "the agent says nothing on its standard error")
            self.assertEqual(self.agent.returncode, 0, "the agent ends cleanly")

    def file(self, name):
        return os.path.join(self.directory, name)

    def write_config(self, agent="", log="", files="", jobs=""):
        """Writes a configuration; of a setting given twice the first value counts."""
        write(
            self.config,
            f"# the agent of a test\n\n[agent]\n{agent}\nport = 0\n\n"
            f"[log]\n{log}\nrotation = none\nlevel = 2\n\n"
            f"[files]\n{files}\n\n[jobs]\n\n{jobs}\n",
        )

    def run_agent(self, *options, **more):
        """Runs an agent that is expected to end by itself."""
        return subprocess.run(
            [AGENT, "--config", self.config, *options],
            capture_output=True,
            text=True,
            timeout=60,
            check=False,
            **more,
        )

    def start(self, **config):
        """Starts an agent in the foreground and waits until it can be reached."""
        if config or not os.path.exists(self.config):
            self.write_config(**config)
        self.start_process()

    def start_as(self, user):
        """Starts an agent as another user, who must be able to write the directory."""
        os.chmod(self.config, 0o644)
        try:
            self.start_process(user=user, group=user, extra_groups=[])
        except PermissionError:
            self.skipTest("the program is out of an ordinary user's reach")

    def start_process(self, **more):
        self.agent = subprocess.Popen(
            [AGENT, "--config", self.config, "--foreground"],
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
            text=True,
            **more,
        )
        until(
            lambda: os.path.exists(self.port_file) or self.agent.poll() is not None,
            "the agent writes its port",
        )
        self.assertIsNone(self.agent.poll(), "the agent runs")

    def port(self):
        return int(read(self.port_file))

    def peer(self):
        peer = Peer(self.port())
        self.addCleanup(peer.close)
        return peer

    def console_command(self, *words):
        return [CONSOLE, "--port-file", self.port_file, *words]

    def console(self, *words):
        return subprocess.run(
            self.console_command(*words),
            capture_output=True,
            text=True,
            errors="replace",
            timeout=60,
            check=False,
        )

    def asked(self, *words):
        """The standard output of a console command that must succeed."""
        result = self.console(*words)
        self.assertEqual((result.returncode, result.stderr), (0, ""), f"{words}")
        return result.stdout

    def start_console(self, *words, **more):
        """A console that goes on while the test does; its output is a pipe."""
        process = subprocess.Popen(
            self.console_command(*words),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            **more,
        )
        self.others.append(process)
        return process

    def assert_refused(self, result, *texts, code=1):
        """A command said why it failed, on standard error only."""
        self.assertEqual(result.returncode, code, result.stderr)
        self.assertEqual(result.stdout, "")
        for text in texts:
            self.assertIn(text, result.stderr)

    def loading(self, library):
        """The environment of a program that loads a library before its own."""
        if not library:
            self.skipTest("nothing can be loaded before a sanitizer")
        return dict(os.environ, LD_PRELOAD=library)

    def settable_clock(self):
        """The environment of a program whose wall clock `set_clock` sets."""
        environment = self.loading(SETTABLE_CLOCK)
        self.set_clock(0)
        return dict(environment, KIV_CLOCK_FILE=self.file("clock"))

    def set_clock(self, seconds):
        """Sets the clock so far ahead of the real one, in every program that has a settable one."""
        write(self.file("clock.new"), str(seconds))
        os.rename(self.file("clock.new"), self.file("clock"))

    def log(self):
        return read(self.log_file)

    def wait_for_log(self, text):
        until(lambda: text in self.log(), f"the log says: {text}")

    def assert_serves(self):
        self.assertIn("uptime: ", self.asked("status"))


def main():
    """Runs the tests of the calling program. "--list" prints each as Class.test_name instead, for
    the build to register."""
    if "--list" not in sys.argv:
        unittest.main()
    for suite in unittest.defaultTestLoader.loadTestsFromModule(sys.modules["__main__"]):
        for test in suite:
            print(test.id().removeprefix("__main__."))
