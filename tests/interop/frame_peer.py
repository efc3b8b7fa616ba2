#!/usr/bin/env python3
"""Exchanges messages with the library through its wire format alone.

Starts the echo program, sends it thousands of messages cut at random bytes, and expects each back
in exactly the frame that this implementation of the format makes of it.

usage: frame_peer.py ECHO_PROGRAM [SEED]
"""

import random
import select
import socket
import struct
import subprocess
import sys
import zlib

MESSAGES = 4000
TIMEOUT_SECONDS = 120


def encode(message_type, body):
    """The frame of a message: encoding, payload length, type, and the body plain or compressed."""
    if not body:
        return struct.pack("<BIB", 0, 1, message_type)
    if len(body) > 10:
        stream = zlib.compress(body)
        if len(stream) < len(body) + 4:
            return struct.pack("<BIBI", 2, len(stream) + 5, message_type, len(body)) + stream
    return struct.pack("<BIB", 1, len(body) + 1, message_type) + body


def take_frame(received):
    """Removes the first whole frame from a buffer; returns (frame, type, body), or None."""
    if len(received) < 6:
        return None
    encoding, length, message_type = struct.unpack_from("<BIB", received)
    if len(received) < length + 5:
        return None
    frame = bytes(received[: length + 5])
    del received[: length + 5]
    body = frame[6:]
    if encoding == 2:
        (declared,) = struct.unpack_from("<I", body)
        body = zlib.decompress(body[4:])
        assert len(body) == declared, (len(body), declared)
    return frame, message_type, body


def random_message(generator):
    message_type = generator.choice(b"abcdefghijklmnop\x01\xff")
    size = generator.choice((0, 1, 9, 10, 11, 12, 40, 300, 5000))
    size += generator.randrange(size // 4 + 1)
    letters = generator.choice((b"a", b"ab", b"0123456789 \n", bytes(range(1, 256))))
    return message_type, bytes(generator.choices(letters, k=size))


class Exchange:
    """One connection; checks what comes back while it sends."""

    def __init__(self, connection, generator):
        self.connection = connection
        self.generator = generator
        self.expected = []
        self.answered = 0
        self.received = bytearray()
        self.encodings = {0: 0, 1: 0, 2: 0}

    def receive(self):
        """Takes some bytes; fails when a whole frame differs from the one expected next."""
        chunk = self.connection.recv(self.generator.randrange(1, 9000))
        assert chunk, "the library closed the connection"
        self.received += chunk
        while (taken := take_frame(self.received)) is not None:
            frame, message_type, body = taken
            wanted = self.expected[self.answered]
            assert (message_type, body) == wanted, f"message {self.answered} came back changed"
            assert frame == encode(*wanted), f"message {self.answered} has another frame"
            self.encodings[frame[0]] += 1
            self.answered += 1

    def wait_for(self, wanted):
        """The events that have come, or 0 when none has in time."""
        poll = select.poll()
        poll.register(self.connection, wanted)
        return sum(events for _, events in poll.poll(TIMEOUT_SECONDS * 1000))

    def send(self, data):
        """Sends everything, and meanwhile receives whatever comes, so that nobody waits in vain."""
        view = memoryview(data)
        while view:
            ready = self.wait_for(select.POLLIN | select.POLLOUT)
            assert ready, "the library neither takes nor gives anything"
            if ready & ~select.POLLOUT:
                self.receive()
            if ready & select.POLLOUT:
                view = view[self.connection.send(view) :]

    def await_answers(self, count):
        while self.answered < count:
            assert self.wait_for(select.POLLIN), f"answer {self.answered} does not come"
            self.receive()

    def run(self):
        """Sends all messages in one row of bytes, cut without regard to where a frame ends."""
        pending = bytearray()
        complete_at = []  # how many bytes of the row make each message complete
        total = 0
        for _ in range(MESSAGES):
            message = random_message(self.generator)
            self.expected.append(message)
            frame = encode(*message)
            total += len(frame)
            complete_at.append(total)
            pending += frame
        position = 0
        complete = 0
        while position < total:
            size = self.generator.choice((1, 2, 5, 6, 50, 3000, 20000))
            size = self.generator.randrange(1, size + 1)
            self.send(pending[position : position + size])
            position += size
            while complete < len(complete_at) and complete_at[complete] <= position:
                complete += 1
            if self.generator.randrange(4) == 0:
                # The library has seen the cut once it answered everything before it.
                self.await_answers(complete)
        self.await_answers(MESSAGES)
        self.expected.append((ord("q"), b""))
        self.send(encode(ord("q"), b""))
        self.await_answers(MESSAGES + 1)


def main():
    program = sys.argv[1]
    seed = int(sys.argv[2]) if len(sys.argv) > 2 else 1
    with socket.create_server(("127.0.0.1", 0)) as server:
        server.settimeout(TIMEOUT_SECONDS)
        child = subprocess.Popen([program, str(server.getsockname()[1])])
        try:
            connection, _ = server.accept()
            with connection:
                connection.setblocking(False)
                connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                exchange = Exchange(connection, random.Random(seed))
                exchange.run()
            status = child.wait(TIMEOUT_SECONDS)
        finally:
            child.kill()  # nothing to end after a good run
            child.wait()
    assert status == 0, f"the echo program ended with {status}"
    assert all(exchange.encodings.values()), exchange.encodings
    print(f"seed {seed}: {exchange.answered} messages each way, by encoding: {exchange.encodings}")


if __name__ == "__main__":
    main()
