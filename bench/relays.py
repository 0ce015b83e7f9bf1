"""The two relays that are compared: the program with its simulated peripheral, and socat with a stand-in for the peripheral."""
import os
import re
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tools"))
import bridge_client  # noqa: E402
import wine_rig  # noqa: E402
from bridge_client import Program, Ziqble, check, wait_until  # noqa: E402

ADDRESS = "00:1A:7D:DA:71:13"
TICKS = os.sysconf("SC_CLK_TCK")


class Linux(bridge_client.Linux):
    """The program and its client as this machine runs them."""
    NAME = "ZIQBLEConnect-sim"
    PROGRAM = ROOT / "build/linux/ZIQBLEConnect-sim"
    LOAD = [ROOT / "build/linux/bench/pipe_load"]
    ZIQBLE = ROOT / "build/linux/ziqble"


class Wine(wine_rig.Wine):
    """The program for Windows and its client, under Wine."""
    NAME = "ZIQBLEConnect-sim.exe"
    PROGRAM = ROOT / "build/windows/ZIQBLEConnect-sim.exe"
    LOAD = [*wine_rig.Wine.run, ROOT / "build/windows/bench/pipe_load.exe"]

    def __init__(self):
        super().__init__(ROOT / "build/windows")


def start_program(host, folder, peripheral):
    """The program in a world with that peripheral."""
    return Program(host.PROGRAM, folder, {"peripherals": [peripheral]}, host=host, output=subprocess.DEVNULL)


def stop(process):
    if process.poll() is None:
        process.terminate()
        try:
            process.wait(10)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


class Relay:
    """A running relay; `near` is the pipe that the measured client, `load`, opens."""

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

    def __init__(self, host, folder, peripheral):
        self.program = start_program(host, folder, peripheral)
        self.name, self.load, self.near, self.process = host.NAME, host.LOAD, self.program.data, self.program.process
        try:
            self.client = bridge_client.Bridge(self.program, ADDRESS)
            self.client.ask(f"connect {ADDRESS}", "OK", "CONNECT TIO")
        except BaseException:
            self.program.stop()
            raise

    def counters(self):
        """Bytes that went in (from the peripheral) and out (to it)."""
        return tuple(map(int, re.match(r"RX (\d+) bytes\. TX (\d+) bytes", self.client.stats()).groups()))

    def all_arrived(self, count):
        """Waits until the far side has all of it; returns the time of the monotonic clock."""
        wait_until(lambda: self.counters()[1] >= count, 30, "the peripheral's receiving everything")
        return time.monotonic()

    def close(self):
        """Ends the program. What it prints about the peripheral must have no violations."""
        try:
            self.client.exit()
        finally:
            self.client.close()
        check(self.program.check_errors(), "no account of the peripheral")
        self.account = self.program.error_text().strip()


class Served(Relay):
    """A serial port of "ziqble serve", over the program; CPU and memory are those of ziqble."""
    name, load = "ziqble serve", Linux.LOAD

    def __init__(self, folder, peripheral):
        self.near = folder / "tty"
        self.program = start_program(Linux, folder, peripheral)
        self.ziqble = Ziqble(Linux.ZIQBLE, (self.program.command, self.program.data), folder=folder)
        try:
            self.process, _ = self.ziqble.serve(ADDRESS, "--wait", "--pty", self.near, stderr=subprocess.DEVNULL)
        except BaseException:
            self.close()
            raise

    def close(self):
        self.ziqble.close()
        self.program.stop()


class SocatPort(Relay):
    """A serial port that socat makes of the program's data pipe: what a relay with a pseudo terminal costs at least."""
    name, load = "socat", Linux.LOAD

    def __init__(self, folder, peripheral):
        self.near, self.bridge = folder / "tty", Bridge(Linux, folder, peripheral)
        self.process = subprocess.Popen(["socat", f"PTY,link={self.near},raw,echo=0", f"UNIX-CONNECT:{self.bridge.near}"],
                                        stderr=subprocess.DEVNULL)
        try:
            wait_until(self.near.exists, 20, "socat's serial port")
        except BaseException:
            self.close()
            raise

    def close(self):
        stop(self.process)
        self.bridge.close()


class Socat(Relay):
    """socat between the client and a stand-in for the peripheral: sink, source or far-echo, paced or not."""
    name, load = "socat", Linux.LOAD

    def __init__(self, folder, part, pace=()):
        self.near, far = folder / "near", folder / "far"
        # Its only message is that the client has left while the far side was still sending.
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
        # socat makes its second socket only when the first one has a client.
        wait_until(self.far_path.exists, 10, "socat's far end")
        self.far = subprocess.Popen([*self.load, self.part, self.far_path, *map(str, self.pace)],
                                    stdout=subprocess.PIPE, text=True)

    def all_arrived(self, count):
        """As above. To be called after the client's end, which ends the relay and the far side."""
        result = json.loads(self.far.stdout.readline())
        if result["received"] != count:
            raise RuntimeError(f"socat lost bytes: {result['received']} of {count}")
        return result["end"]

    def close(self):
        stop(self.process)
        if self.far:
            stop(self.far)
