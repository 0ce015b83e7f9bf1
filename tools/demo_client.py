"""Plays a client's session with the simulated program and checks every answer: demo_client.py PROGRAM"""
import os
import re
import signal
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

from bridge_client import Deviation, Program, check, open_pipe, wait_until

ADDRESS = "00:1A:7D:DA:71:13"
ECHO_BYTES = 256 * 1024
STATS = re.compile(r"RX (\d+) bytes\. TX (\d+) bytes\. LC (\d+)\. RC (\d+)\. V10\.0\.19041;BLE ON;LE=[^;]+\|;(\w+)")


class Shell:
    """The command pipe: one line out, lines in."""

    def __init__(self, path):
        self.pipe = open_pipe(path)
        self.lines = self.pipe.makefile("r", encoding="latin-1", newline="\n")
        self.replies = 0

    def send(self, line):
        print(f"> {line}", flush=True)
        self.pipe.sendall(line.encode() + b"\n")

    def receive(self):
        line = self.lines.readline()
        check(line.endswith("\r\n"), f"expected a line that ends in CR LF, got {line!r}")
        print(f"< {line.rstrip()}", flush=True)
        self.replies += 1
        return line.rstrip("\r\n")

    def expect(self, line):
        received = self.receive()
        check(received == line, f"expected {line!r}, got {received!r}")

    def stats(self):
        self.send("stats")
        found = STATS.fullmatch(self.receive())
        check(found, "the statistics line has an unexpected form")
        return int(found[1]), int(found[2]), found[5]


def echo(data_path):
    """Sends random bytes through the data pipe and compares what comes back."""
    sent = os.urandom(ECHO_BYTES)
    pipe = open_pipe(data_path)
    start = time.monotonic()
    sender = threading.Thread(target=pipe.sendall, args=(sent,), daemon=True)
    sender.start()
    received = bytearray()
    while len(received) < ECHO_BYTES:
        piece = pipe.recv(65536)
        check(piece, f"the data pipe ended after {len(received)} bytes")
        received += piece
    seconds = time.monotonic() - start
    sender.join(20)
    check(received == sent, "the echoed bytes differ from those sent")
    print(f"data pipe: {ECHO_BYTES} random bytes sent, the same {ECHO_BYTES} bytes received, {seconds:.2f} s")
    return pipe


def play(shell, data_path):
    check(shell.stats() == (0, 0, "TIODISCONNECTED"), "counters should start at 0, without a link")
    shell.send("lescan 1000")
    shell.expect(f"{ADDRESS.lower()};TIO-SIM")
    shell.send(f"connect {ADDRESS}")
    shell.expect("OK")
    shell.expect("CONNECT TIO")
    data = echo(data_path)
    # A chunk may be counted a moment after it was delivered.
    wait_until(lambda: shell.stats() == (ECHO_BYTES, ECHO_BYTES, "TIOCONNECTED"), 5, "counting every byte")
    shell.send("disconnect")
    shell.expect("OK")
    check(data.recv(1) == b"", "the data pipe should be closed after disconnect")
    check(shell.stats()[2] == "TIODISCONNECTED", "the link should be down after disconnect")
    shell.send("exit")
    check(shell.lines.readline() == "", "nothing should be answered to exit")


def check_end(program):
    code = program.process.wait(20)
    check(code == 0, f"the program ended with exit code {code}")
    check(not any(pipe.exists() for pipe in (program.command, program.data)), "a socket was left behind")
    last = [line.split("| ", 1)[-1].rstrip() for line in program.log_lines(2)]
    check(last == ["Shell pipe terminated...", "Goodbye!"], f"unexpected closing lines in the log: {last}")
    world = program.errors.read_text().strip()
    check(re.search(r"\bviolations 0\b", world), f"the peripheral should report no violation: {world!r}")
    print(f"program: {' / '.join(last)} exit code {code}\n{world}")


def run(executable, folder):
    program = Program(executable, folder)
    try:
        program.wait_until_serving()
        shell = Shell(program.command)
        play(shell, program.data)
        check_end(program)
    except (Deviation, OSError, subprocess.TimeoutExpired) as problem:
        sys.stderr.write("".join(program.log_lines(20)) + program.errors.read_text())
        sys.exit(f"error: {problem}")
    finally:
        program.stop()
    print(f"Verified: {shell.replies} replies as expected, {ECHO_BYTES} bytes echoed unchanged, no flow-control violation, "
          "both sockets removed, exit code 0.")


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("error: terminated"))
    with tempfile.TemporaryDirectory(prefix="ziqble-demo-") as temporary:
        run(Path(sys.argv[1]).resolve(), Path(temporary))
