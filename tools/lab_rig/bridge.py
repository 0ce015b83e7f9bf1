"""The program in the lab with a client on both its pipes. Runs in the lab."""
import contextlib
import os
import shutil
import threading
import time

from bridge_client import Program, check, open_pipe
from lab_rig.machine import DEADLINE, PERIPHERAL_ADDRESS

USER = "tester"  # has no privileges, and the bus does not let him touch the peripheral's adapter
END_LINES = "STATUS CLOSED", "TIO DROP", "ERROR EXP"  # each of them tells that a link is over
ANSWER_DEADLINE = 180  # seconds; a link that does not come up resets all radios, one after the other


def start_program(executable, folder):
    shutil.chown(folder, USER)
    return Program(executable, folder, user=USER, group=USER, extra_groups=[])


class Bridge:
    """The program, run by the user without privileges, and a client of its command pipe."""

    def __init__(self, executable, folder):
        self.program = start_program(executable, folder)
        self.program.wait_until_serving()
        self.shell = open_pipe(self.program.command)
        self.shell.settimeout(ANSWER_DEADLINE)
        self.lines = self.shell.makefile("r", encoding="latin-1", newline="\n")

    def send(self, line):
        self.shell.sendall(line.encode() + b"\n")

    def receive(self):
        return self.lines.readline().rstrip("\r\n")

    def ask(self, line, *expected):
        self.send(line)
        for text in expected:
            answer = self.receive()
            check(answer == text, f"{text!r} was expected upon {line!r}, not {answer!r}")

    def connect(self):
        """Brings the link up; returns the open data pipe."""
        self.ask(f"connect {PERIPHERAL_ADDRESS}", "OK", "CONNECT TIO")
        return open_pipe(self.program.data)

    def expect_loss(self, data):
        """Checks that the client is told of the link's end, by one line or by two, and that the data pipe ends. The second
        line may come late; after the next command's answer neither can come any more."""
        told = self.receive()
        check(told in END_LINES, f"the client was told {told!r}")
        for command, last in ("disconnect", "OK"), ("stats", "RX "):
            self.send(command)
            while not (answer := self.receive()).startswith(last):
                check(answer in END_LINES, f"the client was told {answer!r}")
        with contextlib.suppress(ConnectionError):
            while data.recv(65536):
                pass
        data.close()

    def disconnect(self, data):
        self.ask("disconnect", "OK")
        check(data.recv(1) == b"", "the data pipe is still open after disconnect")
        data.close()

    def stats(self):
        self.send("stats")
        return self.receive()

    def exit(self):
        self.send("exit")
        code = self.program.process.wait(DEADLINE)
        check(code == 0, f"the program ended with exit code {code}")


class Transfer:
    """Writes `sent` to the data pipe and reads `count` bytes from it, both at once."""

    def __init__(self, data, sent, count):
        self.data, self.sent, self.count = data, sent, count
        self.received = bytearray()
        self.threads = [threading.Thread(target=work, daemon=True) for work in (self.send, self.receive)]
        for thread in self.threads:
            thread.start()

    def send(self):
        try:
            self.data.sendall(self.sent)
        except OSError:
            pass  # the link has ended, and the program has closed the pipe

    def receive(self):
        try:
            while len(self.received) < self.count and (piece := self.data.recv(65536)):
                self.received += piece
        except OSError:
            pass

    def wait(self, seconds):
        end = time.monotonic() + seconds
        for thread in self.threads:
            thread.join(max(0, end - time.monotonic()))
        check(not any(thread.is_alive() for thread in self.threads), f"{len(self.received)} of {self.count} bytes came back")
        return bytes(self.received)


def echo(data, count, seconds=120):
    sent = os.urandom(count)
    received = Transfer(data, sent, count).wait(seconds)
    check(received == sent, f"the echo differs: {len(received)} bytes came back for {count}")


def check_source(received):
    """The peripheral's serial mode "source" sends this pattern."""
    check(received == bytes((i + i // 251) & 0xFF for i in range(len(received))), "the source's bytes differ")
