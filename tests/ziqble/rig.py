"""What the tests of ziqble stand on: a bridge of their own with a world of its own, and ziqble as a child."""
import json
import os
import re
import subprocess
import sys
import time
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tools"))
from bridge_client import Program, wait_until  # noqa: E402

ADDRESS = "00:1A:7D:DA:71:13"
BUILD = Path(os.environ["ZIQBLE_BUILD"])  # the folder of the programs
WINDOWS = (BUILD / "ziqble.exe").exists()
RUN = [str(ROOT / "tests/wine_run.sh")] if WINDOWS else []
ENDING = ".exe" if WINDOWS else ""
linux_only = pytest.mark.skipif(WINDOWS, reason="needs what only Linux has")


class Rig:
    def __init__(self, folder):
        self.folder = folder
        self.program = None
        self.children = []
        self.pipes = [rf"\\.\pipe\{folder.name}-{name}" if WINDOWS else str(folder / name) for name in ("command", "data")]

    def start_bridge(self, **world):
        scenario = self.folder / "scenario.json"
        scenario.write_text(json.dumps({"time_scale": 20, **world}))
        executable = self.folder / "bridge"
        executable.write_text("#!/bin/sh\nexec %s \"$1\" '%s' \"$3\" '%s'\n"
                              % (" ".join(map(str, [*RUN, BUILD / f"ZIQBLEConnect-sim{ENDING}"])), *self.pipes))
        executable.chmod(0o755)
        self.program = Program(executable, self.folder, scenario)
        self.program.wait_until_serving()
        return self.program

    def command(self, *arguments):
        return [*RUN, BUILD / f"ziqble{ENDING}", "--cmd-pipe", self.pipes[0], "--dat-pipe", self.pipes[1], *arguments]

    def run(self, *arguments, **options):
        return subprocess.run(self.command(*arguments), capture_output=True, timeout=60, **options)

    def spawn(self, *arguments, **options):
        child = subprocess.Popen(self.command(*arguments), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE, **options)
        self.children.append(child)
        return child

    def account(self):
        """What the peripheral has counted: bytes in and out. Ends the bridge."""
        assert self.run("exit", "--wait").returncode == 0
        self.program.process.wait(20)
        text = self.program.errors.read_text()
        assert "violations 0" in text, text
        return tuple(map(int, re.search(r"in (\d+) bytes, out (\d+) bytes", text).groups()))

    def close(self):
        for child in self.children:
            child.kill()
            child.communicate()
        if self.program:
            self.program.stop()


@pytest.fixture
def rig(tmp_path):
    made = Rig(tmp_path)
    yield made
    made.close()


def peripheral(**settings):
    return {"peripherals": [settings]}


class Events:
    """The JSON lines that "serve" writes."""

    def __init__(self, path):
        self.path = path

    def __call__(self, kind):
        lines = self.path.read_text().splitlines() if self.path.exists() else []
        return [event for event in map(json.loads, lines) if event["event"] == kind]

    def wait(self, kind, count=1, seconds=20):
        wait_until(lambda: len(self(kind)) >= count, seconds, f"event {kind} number {count}")
        return self(kind)[count - 1]


def seconds_of(call):
    start = time.monotonic()
    result = call()
    return time.monotonic() - start, result
