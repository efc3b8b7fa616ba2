"""The agent among peers that mean it no good: a console beside them is served as ever.

Run it with KIV_AGENT and KIV_CONSOLE set to the two programs; "--list" prints the tests' names."""

import os
import random
import re
import select
import socket
import struct
import sys
import threading
import unittest
import zlib

if "--list" not in sys.argv:
    from harness import AgentTest, Peer, compressed_frame, frame, read, resting_descriptors, until
    from waiting import happened
else:
    AgentTest = unittest.TestCase

# A sanitizer keeps memory of its own beside the agent's, so that its size says nothing.
SANITIZED = bool(os.environ.get("KIV_SANITIZE"))
QUESTIONS = 300
BOMB = zlib.compress(b"\x01" * 30_000_000)


def garbage(generator):
    return generator.randbytes(generator.randrange(1, 5000))


def lying_length(generator):
    length = generator.choice((0, 2**31 - 1, 2**31, 2**32 - 6, 2**32 - 1))
    return struct.pack("<BI", generator.randrange(256), length) + generator.randbytes(100)


def bomb(generator):
    declared = generator.choice((0, 10, 60_000, 30_000_000, 2**32 - 1))
    return compressed_frame(b"s", b"", unpacked_length=declared, packed=BOMB)


def flood(_):
    return frame(b"s") * 2000


class HostilePeer(threading.Thread):
    """Connects, sends what `make` makes, and starts over when it is dropped."""

    def __init__(self, port, make, seed, reads=True):
        super().__init__()
        self.port = port
        self.make = make
        self.generator = random.Random(seed)
        self.reads = reads
        self.stopped = threading.Event()
        self.connections = 0

    def run(self):
        while not self.stopped.is_set():
            with socket.create_connection(("127.0.0.1", self.port)) as connection:
                self.connections += 1
                connection.setblocking(False)
                try:
                    self.bother(connection)
                except OSError:
                    pass  # dropped, as it should be

    def bother(self, connection):
        pending = self.make(self.generator)
        while not self.stopped.is_set():
            wanted = (select.POLLIN if self.reads else 0) | (select.POLLOUT if pending else 0)
            seen = happened(connection, wanted, 0.05)
            if seen & (select.POLLERR | select.POLLHUP):
                return
            if seen & select.POLLIN and not connection.recv(65536):
                return
            if seen & select.POLLOUT:
                pending = pending[connection.send(pending) :]
            elif not pending and self.make is not flood:
                connection.shutdown(socket.SHUT_WR)
                return


class SlowPeer(HostilePeer):
    """Sends an honest question one byte at a time, far too slowly to ever be done."""

    def __init__(self, port, seed):
        super().__init__(port, lambda _: frame(b"p", b"name\n" + b"x" * 60_000), seed)

    def bother(self, connection):
        for byte in self.make(None):
            if self.stopped.wait(0.01):
                return
            connection.send(bytes([byte]))


class HostilePeers(AgentTest):
    def status_number(self, name):
        text = read(f"/proc/{self.agent.pid}/status")
        return int(re.search(name + r":\s+(\d+)", text).group(1))

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.agent.pid}/fd"))

    def question_and_answer(self, good, number):
        value = b"value %d" % number
        self.assertEqual(good.answer(b"p", b"name\n" + value), (b"", b"D"))
        self.assertEqual(good.answer(b"g", b"name"), (value + b"\n", b"D"))
        text, kind = good.answer(b"s")
        self.assertEqual(kind, b"D")
        self.assertIn(b"uptime: ", text)

    def test_console_is_served_beside_hostile_peers_and_memory_stays_bounded(self):
        self.start(agent="silence_limit = 3600\nmax_clients = 100")
        good = self.peer()
        self.question_and_answer(good, 0)
        descriptors = resting_descriptors(self.agent.pid)
        memory = self.status_number("VmRSS")
        port = self.port()
        peers = [
            HostilePeer(port, make, seed)
            for seed, make in enumerate((garbage, lying_length, bomb, garbage, lying_length, bomb))
        ]
        peers += [HostilePeer(port, flood, seed, reads=False) for seed in range(3)]
        peers += [SlowPeer(port, seed) for seed in range(3)]
        for peer in peers:
            peer.start()
        try:
            until(lambda: all(peer.connections > 0 for peer in peers), "all peers are there")
            for number in range(QUESTIONS):
                self.question_and_answer(good, number)
        finally:
            for peer in peers:
                peer.stopped.set()
            for peer in peers:
                peer.join()
        until(lambda: self.descriptors() == descriptors, "the agent drops them all")
        self.question_and_answer(good, QUESTIONS)
        # No bomb is unpacked beyond the longest question, and what a peer leaves unread has its
        # limit: 12 MiB of buffer for each of the three, and a mebibyte for everything else.
        if not SANITIZED:
            self.assertLess(self.status_number("VmHWM") - memory, (3 * 12 + 1) * 1024)
        self.assertIn("dropped: malformed", self.log())

    @unittest.skipIf(SANITIZED, "a sanitizer's own memory grows with each byte that is touched")
    def test_bombs_never_take_the_memory_that_they_declare(self):
        self.start()
        good = self.peer()
        self.question_and_answer(good, 0)
        memory = self.status_number("VmHWM")
        generator = random.Random(1)
        for _ in range(50):
            peer = Peer(self.port())
            try:
                peer.send(bomb(generator))
            except OSError:
                pass  # dropped before all of it was sent
            self.assertIsNone(peer.receive())
            peer.close()
        self.question_and_answer(good, 1)
        self.assertLess(self.status_number("VmHWM") - memory, 2 * 1024)


if __name__ == "__main__":
    if "--list" in sys.argv:
        for suite in unittest.defaultTestLoader.loadTestsFromModule(sys.modules[__name__]):
            for test in suite:
                print(test.id().removeprefix("__main__."))
    else:
        unittest.main()
