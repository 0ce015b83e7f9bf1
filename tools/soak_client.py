"""The soak test's client: the two pipes, and what the client was told about a link."""
import os
import re
import select
import time

from bridge_client import check, open_pipe
from soak_scenario import OVER, UP

DEADLINE = 40  # seconds; long enough for a radio reset without a time scale
WINDOW = 16  # so many random bytes in a row are at one place only
LOSSES = {
    "not sent": re.compile(rb"Link: (\d+) bytes of the client not sent"),
    "write failed": re.compile(rb"Link: a write of (\d+) bytes failed, they may be lost"),
    "given up": re.compile(rb"Data pipe: (\d+) bytes for the client given up"),
}
EVENTS = {"no credits": b"Link: the peripheral grants no credits", "watched": b"Starting communication loop"}


class LogWatch:
    """Reads the log and sums up the losses that it tells of."""

    def __init__(self, path):
        self.file = path.open("rb")
        self.rest = b""
        self.lost = dict.fromkeys(LOSSES, 0)
        self.times = dict.fromkeys(LOSSES, 0)
        self.events = dict.fromkeys(EVENTS, 0)

    def read(self):
        *lines, self.rest = (self.rest + self.file.read()).split(b"\n")
        for line in lines:
            for name, text in EVENTS.items():
                self.events[name] += text in line
            for name, pattern in LOSSES.items():
                if found := pattern.search(line):
                    self.lost[name] += int(found[1])
                    self.times[name] += 1

    def lost_bytes(self):
        self.read()
        return sum(self.lost.values())

    def count(self, event):
        self.read()
        return self.events[event]


class Link:
    """The lines that a client got about one link. Checks that the peripheral's faults can cause them."""

    def __init__(self, peripheral):
        self.name, self.allowed, self.lines = peripheral.kind, set(peripheral.allowed), []

    def saw(self, line):
        known = f"link to {self.name}: {line!r} after {self.lines}"
        check(line in self.allowed, f"{known}, only {sorted(self.allowed)} can come")
        check(line not in self.lines, f"{known} came twice")
        check(line != UP or not self.lines, f"{known}, too late")
        self.lines.append(line)

    def told(self):
        return bool(self.lines)

    def over(self):
        return not OVER.isdisjoint(self.lines)


class Client:
    """A client of a pipe. Its calls do not wait, unless their description says so."""

    def __init__(self, path, pipe_name):
        self.socket, self.pipe_name, self.ended = open_pipe(path), pipe_name, False
        self.socket.setblocking(False)

    def receive(self, most):
        """Returns what has come, or None when there is nothing yet. Sets `ended` when the other side has closed the pipe."""
        try:
            piece = self.socket.recv(most)
        except BlockingIOError:
            return None
        except ConnectionResetError:
            piece = b""
        self.ended = not piece
        return piece

    def expect_end(self):
        """Waits until the program has closed the pipe."""
        end = time.monotonic() + DEADLINE
        while not self.ended:
            check(time.monotonic() < end, f"the program did not close the {self.pipe_name} within {DEADLINE} s")
            select.select([self.socket], [], [], 0.05)
            self.pull()
        self.close()

    def close(self):
        self.ended = True
        self.socket.close()


class Shell(Client):
    """A client on the command pipe. Lines about the link go to `on_link_line`, the others are replies."""

    def __init__(self, path, on_link_line, on_reply):
        super().__init__(path, "command pipe")
        self.on_link_line, self.on_reply = on_link_line, on_reply
        self.rest, self.replies = b"", []

    def send(self, data):
        self.socket.settimeout(DEADLINE)
        self.socket.sendall(data)
        self.socket.setblocking(False)

    def pull(self):
        """Handles the lines that have come."""
        while not self.ended:
            piece = self.receive(65536)
            if piece is None:
                return
            *lines, self.rest = (self.rest + piece).split(b"\r\n")
            for line in (line.decode("latin-1") for line in lines):
                check("\n" not in line and "\r" not in line, f"line end inside a line: {line!r}")
                if line == UP or line in OVER:
                    self.on_link_line(line)
                else:
                    self.on_reply(line)
                    self.replies.append(line)

    def wait(self, condition, what):
        """Waits until the condition holds, and handles the lines that come meanwhile."""
        end = time.monotonic() + DEADLINE
        while True:
            self.pull()
            if condition():
                return
            check(time.monotonic() < end, f"{what} did not happen within {DEADLINE} s")
            check(not self.ended, f"the program closed the command pipe, waiting for: {what}")
            select.select([self.socket], [], [], 0.002)

    def reply(self, command):
        self.wait(lambda: self.replies, f"the answer to {command!r}")
        return self.replies.pop(0)

    def ask(self, command):
        check(not self.replies, f"unexpected lines: {self.replies}")
        self.send(command.encode() + b"\n")
        return self.reply(command)

    def expect(self, command, answer):
        got = self.ask(command)
        check(got == answer, f"{command!r} was answered with {got!r}")


class DataPipe(Client):
    """A client on the data pipe."""

    def __init__(self, path):
        super().__init__(path, "data pipe")
        self.sent, self.received = bytearray(), bytearray()

    def pull(self, most=1 << 30):
        while not self.ended and len(self.received) < most:
            piece = self.receive(min(65536, most - len(self.received)))
            if piece is None:
                return
            self.received += piece

    def push(self, data):
        """Writes as much as the pipe takes; returns how much that was."""
        try:
            count = self.socket.send(data)
            self.sent += data[:count]
            return count
        except BlockingIOError:
            return 0
        except (BrokenPipeError, ConnectionResetError):
            self.pull()  # reads what came before the end
            self.ended = True
            return 0


def same_length(one, other):
    """Returns how many bytes at the start are equal."""
    limit = min(len(one), len(other))
    if one[:limit] == other[:limit]:
        return limit
    return len(os.path.commonprefix([one[:limit], other[:limit]]))


def missing_bytes(sent, received):
    """Returns how many sent bytes are missing between the received ones. Those behind the last one do not count."""
    missing, rest = 0, bytes(received)
    sent = memoryview(bytes(sent))
    while True:
        same = same_length(sent.tobytes(), rest)
        sent, rest = sent[same:], rest[same:]
        if not rest:
            return missing
        gap = sent.tobytes().find(rest[:WINDOW])
        check(gap >= 0, f"bytes came back that were not sent, or not in this order: {len(received) - len(rest)} "
                        f"of {len(received)} were right, then {rest[:WINDOW].hex()}")
        missing += gap
        sent = sent[gap:]


def source_bytes(first, count):
    return bytes((position + position // 251) & 0xFF for position in range(first, first + count))


SOURCE_PERIOD = 251 * 256
SOURCE_WINDOW = 300  # longer than 251: shorter pieces are at many places of the pattern
SOURCE = source_bytes(0, SOURCE_PERIOD + SOURCE_WINDOW)


def check_source(received):
    """Checks the bytes of a source. Those sent before the data pipe was open are missing; from then on there is no gap."""
    if len(received) < SOURCE_WINDOW:
        return
    first = SOURCE.find(received[:SOURCE_WINDOW])
    check(first >= 0 and received == source_bytes(first, len(received)), "a source's bytes are not as it sent them")
