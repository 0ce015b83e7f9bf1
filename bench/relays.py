"""The two relays that are compared: the program with its simulated peripheral, and socat with a stand-in for one."""
import json
import os
import re
import socket
import subprocess
import time
from pathlib import Path

BUILD = Path(__file__).resolve().parent.parent / "build" / "linux"
PROGRAM = BUILD / "ZIQBLEConnect-sim"
LOAD = BUILD / "bench" / "pipe_load"
ADDRESS = "00:1A:7D:DA:71:13"
TICKS = os.sysconf("SC_CLK_TCK")


def wait_until(condition, seconds, what):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError(f"{what}: not within {seconds} s")
        time.sleep(0.005)


def stop(process):
    if process.poll() is None:
        process.terminate()
        try:
            process.wait(10)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


class Relay:
    """A running relay; `near` is the path that the measured client opens."""

    def client_connected(self):
        """To be called once the client has been started."""

    def cpu_seconds(self):
        fields = Path(f"/proc/{self.process.pid}/stat").read_text().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / TICKS

    def peak_megabytes(self):
        status = Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(r"VmHWM:\s*(\d+) kB", status)[1]) * 1024 / 1e6

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class Bridge(Relay):
    """The program, connected to its peripheral."""
    name = "ZIQBLEConnect-sim"

    def __init__(self, folder, peripheral):
        self.near = folder / "data"
        self.errors = folder / "errors"
        scenario = folder / "scenario.json"
        scenario.write_text(json.dumps({"peripherals": [peripheral]}))
        shell_path = folder / "command"
        with self.errors.open("w") as errors:
            self.process = subprocess.Popen(
                [PROGRAM, "--cmdPipe", shell_path, "--datPipe", self.near], stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL, stderr=errors, env=os.environ | {"ZIQBLE_SCENARIO": str(scenario)})
        try:
            wait_until(lambda: shell_path.exists() or self.process.poll() is not None, 10, "command pipe")
            self.shell = socket.socket(socket.AF_UNIX)
            self.shell.settimeout(20)
            self.shell.connect(str(shell_path))
            self.lines = self.shell.makefile("r", newline="\r\n")
            self.say(f"connect {ADDRESS}", "OK\r\n")
            self.expect("CONNECT TIO\r\n")
        except BaseException:
            stop(self.process)
            raise

    def say(self, line, reply):
        self.shell.sendall(line.encode() + b"\n")
        self.expect(reply)

    def expect(self, reply):
        line = self.lines.readline()
        if line != reply:
            raise RuntimeError(f"expected {reply!r}, got {line!r}; errors: {self.errors.read_text()}")

    def counters(self):
        """Bytes that went in (from the peripheral) and out (to it)."""
        self.shell.sendall(b"stats\n")
        return tuple(map(int, re.match(r"RX (\d+) bytes\. TX (\d+) bytes", self.lines.readline()).groups()))

    def all_arrived(self, count):
        """When the far side had all of it."""
        wait_until(lambda: self.counters()[1] >= count, 30, "the peripheral's receiving everything")
        return time.monotonic()

    def close(self):
        """Ends the program; its account of the peripheral has to be free of violations."""
        try:
            self.shell.sendall(b"exit\n")
            self.process.wait(20)
        finally:
            stop(self.process)
            self.shell.close()
        self.account = self.errors.read_text().strip()
        if not re.search(r"\bviolations 0\b", self.account):
            raise RuntimeError(f"violations, or no account of the peripheral: {self.account!r}")


class Socat(Relay):
    """socat between the client and a stand-in for the peripheral: sink, source or far-echo, paced or not."""
    name = "socat"

    def __init__(self, folder, part, pace=()):
        self.near, far = folder / "near", folder / "far"
        # Its only complaint is that the client has left while the far side still streamed.
        self.process = subprocess.Popen(["socat", "-b", "2048", f"UNIX-LISTEN:{self.near}", f"UNIX-LISTEN:{far}"],
                                        stderr=subprocess.DEVNULL)
        try:
            wait_until(self.near.exists, 10, "socat")
        except BaseException:
            stop(self.process)
            raise
        self.far_path, self.part, self.pace = far, part, pace
        self.far = None

    def client_connected(self):
        # socat makes its second end only when the first one has its client.
        wait_until(self.far_path.exists, 10, "socat's far end")
        self.far = subprocess.Popen([LOAD, self.part, self.far_path, *map(str, self.pace)],
                                    stdout=subprocess.PIPE, text=True)

    def all_arrived(self, count):
        """As above; after the client's end, which ends the relay and the far side."""
        result = json.loads(self.far.stdout.readline())
        if result["received"] != count:
            raise RuntimeError(f"socat lost bytes: {result['received']} of {count}")
        return result["end"]

    def close(self):
        stop(self.process)
        if self.far:
            stop(self.far)
