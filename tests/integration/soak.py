#!/usr/bin/env python3
"""Runs the agent under 50 consoles, jobs and configuration changes for a while, and adds up.

usage: soak.py [--seconds N | --minutes N] [--consoles N] [--rate QUESTIONS_PER_SECOND]

KIV_AGENT and KIV_CONSOLE name the two programs. Prints the memory's slope, descriptors, threads,
children and messages; fails when they do not add up: every question has exactly one answer of the
expected text, the agent has counted the bytes and questions that went over the wire, the log has
a line for each, and nothing has grown or is left at the end."""

import argparse
import glob
import os
import random
import re
import selectors
import socket
import struct
import subprocess
import sys
import tempfile
import time
import zlib

from harness import AGENT, children_of, frame, read, resting_descriptors, until, write

JOBS = 10
JOB_LINES = 20
BEAT_SECONDS = 10
STAY_SECONDS = 60  # on average, until a console leaves and another one comes
WARM_UP = 0.3  # the part of the run after which memory is compared

# What may come on top after the warm-up: the allocator's own fluctuation.
SPARE_KIB = 1024
SLOPE_KIB_PER_MINUTE = 16
LONG_RUN_SECONDS = 600  # from here on the slope counts too


class Totals:
    """What went over all connections."""

    def __init__(self):
        self.questions = 0
        self.answers = 0
        self.beats = 0
        self.beats_back = 0
        self.bytes_sent = 0
        self.bytes_received = 0
        self.connections = 0
        self.jobs_run = 0
        self.kinds = {}


class Console:
    """A persistent connection that asks one question after the other and checks the answers."""

    def __init__(self, number, soak):
        self.number = number
        self.soak = soak
        self.property = None
        self.socket = None
        self.connect()

    def connect(self):
        self.socket = socket.create_connection(("127.0.0.1", self.soak.port))
        self.socket.settimeout(60)
        self.received = b""
        self.expected = None
        self.text = b""
        now = time.monotonic()
        self.next_beat = now + BEAT_SECONDS
        self.leaves_at = now + self.soak.random.expovariate(1 / STAY_SECONDS)
        self.soak.totals.connections += 1
        self.soak.selector.register(self.socket, selectors.EVENT_READ, self)

    def close(self):
        self.soak.selector.unregister(self.socket)
        self.socket.close()

    def send(self, message_type, body=b""):
        data = frame(message_type, body)
        self.socket.sendall(data)
        self.soak.totals.bytes_sent += len(data)

    def ask(self, kind, message_type, body, expected):
        """`expected` gets the text, the last message's type and its body, and says what is wrong."""
        assert self.expected is None
        self.expected = (kind, expected)
        self.text = b""
        totals = self.soak.totals
        totals.questions += 1
        totals.kinds[kind] = totals.kinds.get(kind, 0) + 1
        self.send(message_type, body)

    def beat(self):
        self.soak.totals.beats += 1
        self.send(b"h")

    def on_readable(self):
        data = self.socket.recv(65536)
        assert data, f"the agent dropped console {self.number}"
        self.soak.totals.bytes_received += len(data)
        self.received += data
        while len(self.received) >= 6:
            (length,) = struct.unpack("<I", self.received[1:5])
            if len(self.received) < 5 + length:
                return
            payload = self.received[5 : 5 + length]
            packed = self.received[0] == 2
            self.received = self.received[5 + length :]
            self.on_message(payload[:1], zlib.decompress(payload[5:]) if packed else payload[1:])

    def on_message(self, kind, body):
        if kind == b"H":
            self.soak.totals.beats_back += 1
            return
        assert self.expected is not None, f"an answer nobody asked for: {kind} {body[:80]}"
        if kind == b"T":
            self.text += body
            return
        assert kind in (b"D", b"F"), kind
        name, expected = self.expected
        self.expected = None
        self.soak.totals.answers += 1
        wrong = expected(self.text, kind, body)
        assert not wrong, f"{name} by console {self.number}: {wrong}: {self.text[:300]} {body[:300]}"

    # The questions.

    def ask_something(self):
        if self.property is None:
            self.ask_set()
            return
        asks = [
            (20, self.ask_status),
            (20, self.ask_set),
            (20, self.ask_get),
            (6, self.ask_config_set),
            (6, self.ask_config_get),
            (6, self.ask_tail),
            (6, self.ask_jobs),
            (4, self.ask_tree),
            (4, self.ask_unknown_property),
            (10, self.ask_run),
            (1, self.ask_rotate),
        ]
        self.soak.random.choices([a for _, a in asks], [w for w, _ in asks])[0]()

    def ask_status(self):
        self.ask("status", b"s", b"", lambda text, kind, _: kind != b"D" or b"uptime: " not in text)

    def ask_set(self):
        # The first value is a large one, so that memory is at its height soon.
        size = self.soak.random.choice((5, 50, 500, 20000)) if self.property else 20000
        value = bytes(self.soak.random.choices(b"abcdefgh \n", k=size)) + b"."
        self.property = value
        self.ask(
            "set",
            b"p",
            b"soak-%d\n%s" % (self.number, value),
            lambda text, kind, _: kind != b"D" or text,
        )

    def ask_get(self):
        value = self.property
        self.ask(
            "get",
            b"g",
            b"soak-%d" % self.number,
            lambda text, kind, _: kind != b"D" or text != value + b"\n",
        )

    def ask_unknown_property(self):
        self.ask("get missing", b"g", b"nobody", lambda text, kind, _: kind != b"F" or text)

    def ask_config_set(self):
        limit = self.soak.random.randrange(120, 600)
        self.ask(
            "config set",
            b"C",
            b"agent\nsilence_limit\n%d" % limit,
            lambda text, kind, _: kind != b"D" or text != b"saved\n",
        )

    def ask_config_get(self):
        self.ask(
            "config get",
            b"c",
            b"agent\nsilence_limit",
            lambda text, kind, _: kind != b"D" or not 120 <= int(text) < 600,
        )

    def ask_tail(self):
        # Another console may rotate the log just before.
        self.ask("tail", b"l", b"5", lambda text, kind, _: kind != b"D" or text.count(b"\n") > 5)

    def ask_jobs(self):
        self.ask(
            "jobs", b"j", b"", lambda text, kind, _: kind != b"D" or text.count(b"\n") != JOBS
        )

    def ask_tree(self):
        pid = self.soak.agent.pid
        self.ask(
            "tree", b"t", b"%d" % pid, lambda text, kind, _: kind != b"D" or b"kiv-agent" not in text
        )

    def ask_run(self):
        number = self.soak.random.randrange(JOBS)
        whole = b"".join(b"line %d of job %d\n" % (i, number) for i in range(JOB_LINES))

        def expected(text, kind, body):
            if kind == b"F":
                return b"runs already" not in body
            self.soak.totals.jobs_run += 1
            return not text.startswith(whole) or int(body or b"0") != number

        self.ask("run", b"r", b"job%d" % number, expected)

    def ask_rotate(self):
        self.ask("rotate", b"o", b"", lambda text, kind, _: kind != b"D" or not text)


class Soak:
    """An agent in a directory of its own, its consoles and what is seen of it."""

    def __init__(self, directory, options):
        self.random = random.Random(options.seed)
        self.options = options
        self.directory = directory
        self.totals = Totals()
        self.selector = selectors.DefaultSelector()
        self.samples = []  # (seconds, KiB, descriptors, threads, children)
        self.agent = None
        self.port = 0
        self.config = os.path.join(directory, "agent.conf")

    def start(self):
        jobs = "".join(
            f'job{i} = /bin/sh -c "n=0; while [ $n -lt {JOB_LINES} ]; do '
            f'echo line $n of job {i}; n=$((n + 1)); done; exit {i}"\n'
            for i in range(JOBS)
        )
        write(
            self.config,
            "# the comment of an operator\n\n[agent]\nport = 0\nsilence_limit = 120\n"
            f"max_clients = {self.options.consoles + 10}\n\n"
            f"[log]\nlevel = 3\nrotation = none\n\n[jobs]\n\n{jobs}\n",
        )
        self.agent = subprocess.Popen(
            [AGENT, "--config", self.config, "--foreground"],
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
        )
        port_file = os.path.join(self.directory, "agent.port")
        until(lambda: os.path.exists(port_file) or self.agent.poll() is not None, "a port")
        assert self.agent.poll() is None, self.agent.stderr.read()
        self.port = int(read(port_file))

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.agent.pid}/fd"))

    def threads(self):
        return len(os.listdir(f"/proc/{self.agent.pid}/task"))

    def at_rest(self):
        """Descriptors and threads once the agent has answered everything that opens some."""
        console = Console(0, self)
        for ask in (console.ask_status, console.ask_tree, console.ask_tail):
            ask()
            self.finish_answers([console])
        resting = (resting_descriptors(self.agent.pid) - 1, self.threads())
        console.close()
        return resting

    def sample(self, seconds):
        status = read(f"/proc/{self.agent.pid}/status")
        resident = int(re.search(r"VmRSS:\s+(\d+)", status).group(1))
        children = len(children_of(self.agent.pid))
        self.samples.append((seconds, resident, self.descriptors(), self.threads(), children))

    def drive(self):
        consoles = [Console(i, self) for i in range(self.options.consoles)]
        begin = time.monotonic()
        end = begin + self.options.seconds
        pause = 1 / self.options.rate
        sample_every = max(1.0, self.options.seconds / 300)
        next_question = begin
        next_sample = begin
        while (now := time.monotonic()) < end:
            assert self.agent.poll() is None, "the agent ended"
            if now >= next_sample:
                self.sample(now - begin)
                next_sample = now + sample_every
            for console in consoles:
                if now >= console.next_beat:
                    console.beat()
                    console.next_beat = now + BEAT_SECONDS
            while now >= next_question:
                next_question += pause
                idle = [console for console in consoles if console.expected is None]
                if not idle:
                    continue
                console = self.random.choice(idle)
                if now >= console.leaves_at and not self.has_beats_pending():
                    console.close()
                    console.connect()
                console.ask_something()
            for key, _ in self.selector.select(max(0.0, next_question - time.monotonic())):
                key.data.on_readable()
        self.finish_answers(consoles)
        return consoles

    def has_beats_pending(self):
        return self.totals.beats != self.totals.beats_back

    def finish_answers(self, consoles):
        deadline = time.monotonic() + 60
        while any(c.expected is not None for c in consoles) or self.has_beats_pending():
            assert time.monotonic() < deadline, "answers are missing"
            for key, _ in self.selector.select(1.0):
                key.data.on_readable()

    def check_counters(self, console):
        """The agent's own counts, which its answer about them is not part of."""
        received_before = self.totals.bytes_received
        seen = {}

        def expected(text, kind, _):
            seen.update(line.split(": ", 1) for line in text.decode().splitlines() if ": " in line)
            return kind != b"D"

        console.ask("status", b"s", b"", expected)
        self.finish_answers([console])
        assert int(seen["bytes received"]) == self.totals.bytes_sent, (seen, vars(self.totals))
        assert int(seen["bytes sent"]) == received_before, (seen, received_before)
        assert int(seen["questions"]) == self.totals.questions, (seen, vars(self.totals))

    def check_log(self):
        """Every question has its whole line, in one of the rotated files or the last one."""
        lines = 0
        for path in glob.glob(os.path.join(self.directory, "log", "*")):
            for line in read(path).splitlines():
                assert re.match(r"\d\d/\d\d/\d{4} \d\d:\d\d:\d\d - \[\w+\] .", line), line
                lines += " asks: " in line
        assert lines == self.totals.questions, f"{lines} lines of {self.totals.questions} questions"

    def check_config(self):
        text = read(self.config)
        assert text.count("# the comment of an operator\n") == 1, text
        assert text.count("silence_limit = ") == 1, text
        assert text.count("## End of autogenerated file ##") == 1, text

    def memory(self):
        """(growth in KiB after the warm-up, slope in KiB per minute)"""
        begin = self.options.seconds * WARM_UP
        settled = [(s, kib) for s, kib, *_ in self.samples if s >= begin]
        middle = len(settled) // 2
        early = max(kib for _, kib in settled[: max(1, middle)])
        late = max(kib for _, kib in settled[middle:])
        mean_s = sum(s for s, _ in settled) / len(settled)
        mean_kib = sum(kib for _, kib in settled) / len(settled)
        spread = sum((s - mean_s) ** 2 for s, _ in settled)
        slope = sum((s - mean_s) * (kib - mean_kib) for s, kib in settled) / spread if spread else 0
        return late - early, slope * 60

    def check_memory(self):
        growth, slope = self.memory()
        assert growth <= SPARE_KIB, f"memory grew by {growth} KiB after the warm-up"
        if self.options.seconds >= LONG_RUN_SECONDS:
            assert slope <= SLOPE_KIB_PER_MINUTE, f"memory grows by {slope:.1f} KiB a minute"

    def run(self):
        self.start()
        descriptors, threads = self.at_rest()
        consoles = self.drive()
        self.check_counters(consoles[0])
        for console in consoles:
            console.close()
        until(lambda: self.descriptors() == descriptors, "the agent closes its connections")
        until(lambda: not children_of(self.agent.pid), "the agent reaps its children")
        until(lambda: self.threads() == threads, "the agent has its threads only")
        self.report(descriptors, threads)
        self.agent.terminate()
        errors = self.agent.communicate(timeout=60)[1]
        assert (self.agent.returncode, errors) == (0, b""), (self.agent.returncode, errors)
        self.check_log()
        self.check_config()
        self.check_memory()

    def report(self, descriptors, threads):
        growth, slope = self.memory()
        totals = self.totals
        resident = [kib for _, kib, *_ in self.samples]
        print(
            f"{self.options.seconds:.0f} s, {self.options.consoles} consoles, "
            f"{totals.connections} connections\n"
            f"messages: {totals.questions + totals.beats} sent, "
            f"{totals.answers + totals.beats_back} answers received "
            f"({totals.beats} heart-beats, {totals.jobs_run} jobs run)\n"
            f"bytes: {totals.bytes_sent} sent, {totals.bytes_received} received\n"
            f"memory: {resident[0]} KiB at the start, {max(resident)} KiB at most, "
            f"{resident[-1]} KiB at the end; after the warm-up {growth:+d} KiB, "
            f"slope {slope:+.2f} KiB a minute\n"
            f"descriptors: {descriptors} before, {max(s[2] for s in self.samples)} at most, "
            f"{self.descriptors()} after\n"
            f"threads: {threads} before, {max(s[3] for s in self.samples)} at most, "
            f"{self.threads()} after\n"
            f"children: {max(s[4] for s in self.samples)} at most, "
            f"{len(children_of(self.agent.pid))} after\n"
            "questions: " + ", ".join(f"{k} {n}" for k, n in sorted(totals.kinds.items())),
            flush=True,
        )


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--seconds", type=float, default=30)
    parser.add_argument("--minutes", type=float)
    parser.add_argument("--consoles", type=int, default=50)
    parser.add_argument("--rate", type=float, default=100)
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    if options.minutes is not None:
        options.seconds = options.minutes * 60
    with tempfile.TemporaryDirectory(prefix="kiv-soak-") as directory:
        soak = Soak(directory, options)
        try:
            soak.run()
        finally:
            if soak.agent is not None and soak.agent.poll() is None:
                soak.agent.kill()
                soak.agent.wait()
    return 0


if __name__ == "__main__":
    sys.exit(main())
