"""Plays a client's session with the simulated program and checks every answer: demo_client.py PROGRAM"""
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

ADDRESS = "00:1A:7D:DA:71:13"
ECHO_BYTES = 256 * 1024
STATS = re.compile(r"RX (\d+) bytes\. TX (\d+) bytes\. LC (\d+)\. RC (\d+)\. V10\.0\.19041;BLE ON;LE=[^;]+\|;(\w+)")


class Deviation(Exception):
    pass


def check(good, what):
    if not good:
        raise Deviation(what)


def wait_until(condition, seconds, what):
    end = time.monotonic() + seconds
    while not condition():
        check(time.monotonic() < end, f"{what} did not happen within {seconds} s")
        time.sleep(0.01)


def open_pipe(path):
    pipe = socket.socket(socket.AF_UNIX)
    pipe.settimeout(20)
    pipe.connect(str(path))
    return pipe


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
    # The last chunk is counted just after it was delivered, so the count may be a moment late.
    wait_until(lambda: shell.stats() == (ECHO_BYTES, ECHO_BYTES, "TIOCONNECTED"), 5, "counting every byte")
    shell.send("disconnect")
    shell.expect("OK")
    check(data.recv(1) == b"", "the data pipe should be closed after disconnect")
    check(shell.stats()[2] == "TIODISCONNECTED", "the link should be down after disconnect")
    shell.send("exit")
    check(shell.lines.readline() == "", "nothing should be answered to exit")


def check_end(program, log, errors, pipes):
    code = program.wait(20)
    check(code == 0, f"the program ended with exit code {code}")
    check(not any(pipe.exists() for pipe in pipes), "a socket was left behind")
    last = [line.split("| ", 1)[-1] for line in log.read_text().splitlines()[-2:]]
    check(last == ["Shell pipe terminated...", "Goodbye!"], f"unexpected closing lines in the log: {last}")
    world = errors.read_text().strip()
    check(re.search(r"\bviolations 0\b", world), f"the peripheral should report no violation: {world!r}")
    print(f"program: {' / '.join(last)} exit code {code}\n{world}")


def end(program):
    if program.poll() is None:
        program.terminate()
        try:
            program.wait(10)
        except subprocess.TimeoutExpired:
            program.kill()
            program.wait()


def run(executable, folder):
    pipes = [folder / "command", folder / "data"]
    log, errors = folder / "log", folder / "errors"
    world = {key: value for key, value in os.environ.items() if key != "ZIQBLE_SCENARIO"}
    with log.open("w") as out, errors.open("w") as err:
        program = subprocess.Popen([executable, "--cmdPipe", pipes[0], "--datPipe", pipes[1]],
                                   stdin=subprocess.DEVNULL, stdout=out, stderr=err, env=world)
    try:
        wait_until(lambda: pipes[0].exists() or program.poll() is not None, 10, "creating the command pipe")
        shell = Shell(pipes[0])
        play(shell, pipes[1])
        check_end(program, log, errors, pipes)
    except (Deviation, OSError, subprocess.TimeoutExpired) as problem:
        sys.stderr.write("".join(log.read_text().splitlines(True)[-20:]) + errors.read_text())
        sys.exit(f"error: {problem}")
    finally:
        end(program)
    print(f"Verified: {shell.replies} replies as expected, {ECHO_BYTES} bytes echoed unchanged, no flow-control violation, "
          "both sockets removed, exit code 0.")


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("error: terminated"))
    with tempfile.TemporaryDirectory(prefix="ziqble-demo-") as temporary:
        run(Path(sys.argv[1]).resolve(), Path(temporary))
