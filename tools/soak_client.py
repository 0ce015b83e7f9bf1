"""What the soak test's client makes of what comes: the lines about a link, the bytes, the losses that the log tells of."""
import re
import time

import bridge_client
from bridge_client import check, source_bytes
from soak_scenario import OVER, UP

DEADLINE = 40  # seconds; long enough for a radio reset without a time scale
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


class Shell(bridge_client.Shell):
    """A client on the command pipe. Lines about the link go to `on_link_line`, the others are replies."""

    def __init__(self, opened, on_link_line, on_reply):
        super().__init__(opened)
        self.on_link_line, self.on_reply, self.replies = on_link_line, on_reply, []

    def pull(self):
        """Handles the lines that have come."""
        count = super().pull()
        *lines, self.come = self.come.split(b"\r\n") if count else [self.come]
        for line in (line.decode("latin-1") for line in lines):
            check("\n" not in line and "\r" not in line, f"line end inside a line: {line!r}")
            if line == UP or line in OVER:
                self.on_link_line(line)
            else:
                self.on_reply(line)
                self.replies.append(line)
        return count

    def wait(self, condition, what):
        """Waits until the condition holds, and handles the lines that come meanwhile."""
        end = time.monotonic() + DEADLINE
        self.move(until=lambda: condition() or time.monotonic() > end, seconds=DEADLINE)
        check(condition(), f"{what} did not happen within {DEADLINE} s, or before the program closed the command pipe")

    def reply(self, command):
        self.wait(lambda: self.replies, f"the answer to {command!r}")
        return self.replies.pop(0)

    def ask(self, command):
        check(not self.replies, f"unexpected lines: {self.replies}")
        self.command(command)
        return self.reply(command)

    def expect(self, command, answer):
        got = self.ask(command)
        check(got == answer, f"{command!r} was answered with {got!r}")


class DataPipe(bridge_client.Pipe):
    """A client on the data pipe."""

    def __init__(self, opened):
        super().__init__(opened)
        self.sent = bytearray()

    def offer(self, data):
        count = super().offer(data)
        self.sent += data[:count]
        return count


SOURCE_PERIOD = 251 * 256
SOURCE_WINDOW = 300  # longer than 251: shorter pieces are at many places of the pattern
SOURCE = source_bytes(SOURCE_PERIOD + SOURCE_WINDOW)


def check_source(received):
    """Checks the bytes of a source. Those sent before the data pipe was open are missing; from then on there is no gap."""
    if len(received) < SOURCE_WINDOW:
        return
    first = SOURCE.find(received[:SOURCE_WINDOW])
    check(first >= 0 and received == source_bytes(len(received), first), "a source's bytes are not as it sent them")
