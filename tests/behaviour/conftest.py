"""Runs the tests on one of the rigs, which ZIQBLE_RIG names:
  sim              the simulated program
  sim-wine         the simulated program for Windows, under Wine
  windows          the Windows program under Wine, over a stand-in for the Windows Runtime
  windows-older    the same, as on an older Windows
  lab              the Linux program on a real Bluetooth stack; runs in the lab
ZIQBLE_BUILD is the folder of the programs."""
import contextlib
import os
import sys
import tempfile
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tools"))
from bridge_client import Bridge, Linux, Program, Ziqble  # noqa: E402
from wine_rig import Wine  # noqa: E402

ADDRESS = "00:1A:7D:DA:71:13"
RIG = os.environ.get("ZIQBLE_RIG", "sim")
BUILD = Path(os.environ.get("ZIQBLE_BUILD", ROOT / "build/linux")).resolve()
SANITIZED = bool(os.environ.get("ZIQBLE_SANITIZE"))
LAB, WINE, WINDOWS = RIG == "lab", RIG not in ("sim", "lab"), RIG.startswith("windows")
EXECUTABLE = {"sim": "ZIQBLEConnect-sim", "sim-wine": "ZIQBLEConnect-sim.exe", "lab": "ZIQBLEConnect",
              "windows": "tests/under_wine/ZIQBLEConnect.exe", "windows-older": "tests/under_wine/ZIQBLEConnect-older.exe"}[RIG]
# The Windows program's own sleeps keep their length, and threads and handles of Wine's libraries come and go.
CYCLES, NOISE = (20 if WINDOWS or LAB else 40 if WINE else 100 if SANITIZED else 500), (8 if WINE else 0)
PROVIDER = "provider: live objects 0" if WINDOWS else ""  # what the stand-in for the Windows Runtime writes
if LAB:
    from lab_rig import machine  # noqa: E402
    from lab_rig.peripheral import lab  # noqa: E402
collect_ignore_glob = ["ziqble_*" if LAB else "lab_*"]


def pytest_collection_modifyitems(config, items):
    """Tests of other rigs are left out and not shown as skipped."""
    def fits(item):
        markers = [mark for mark in item.own_markers if mark.name == "rigs"] or filter(None, [item.get_closest_marker("rigs")])
        return all(RIG in mark.args for mark in markers)
    config.hook.pytest_deselected(items=[item for item in items if not fits(item)])
    items[:] = filter(fits, items)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """Adds the end of each program's log to a failure."""
    report = (yield).get_result()
    rig = getattr(item, "funcargs", {}).get("rig")
    if report.failed and rig and rig.folder.exists():
        rig.failed = True
        for program in rig.programs:
            report.sections.append((f"log of the program, exit code {program.process.poll()}", program.ends_of_logs()))


class Rig:
    """Programs in a world of their own, their clients, and ziqble as a child. All use the same two pipes."""

    def __init__(self, folder, host):
        self.folder, self.host, self.failed = folder, host, False
        self.programs, self.bridges = [], []
        self.address = machine.PERIPHERAL_ADDRESS if LAB else ADDRESS
        self.pipes = [host.pipe(folder, name) for name in ("command", "data")]
        self.ziqble = Ziqble(BUILD / f"ziqble{host.suffix}", self.pipes, host, folder)
        self.run, self.spawn = self.ziqble.run, self.ziqble.spawn

    def launch(self, world=None, arguments=None, **options):
        """Starts a program; its log and its standard error are in a folder of its own."""
        folder = self.folder / str(len(self.programs))
        folder.mkdir()
        if LAB:
            options |= machine.as_tester(self.folder, folder)
        self.programs.append(Program(BUILD / EXECUTABLE, folder, {"time_scale": 50, **(world or {})}, arguments, self.pipes,
                                     self.host, cwd=folder, **options))
        return self.programs[-1]

    def start(self, world=None, arguments=None, **options):
        """Starts a program and becomes its client."""
        if LAB:
            lab.configure(**(world or peripheral())["peripherals"][0])
        self.bridges.append(bridge := Bridge(self.launch(world, arguments, **options), self.address))
        return bridge

    def account(self, bridge, ended=False):
        """Ends the program, unless that has been done, and checks what it leaves behind. What its peripheral has counted."""
        if not ended:
            bridge.exit()
        accounts = bridge.program.check_end(PROVIDER)
        return lab.account() if LAB else accounts[0]

    def finish(self):
        """Ends what still runs, as a user does."""
        for program in self.programs:
            if program.running():
                if "terminate APP command" not in program.log_text():  # otherwise it is about to end by itself
                    program.interrupt()
                assert program.wait() == 0
            if program.process.returncode == 0:
                program.check_errors(PROVIDER)

    def close(self):
        self.ziqble.close()
        for bridge in self.bridges:
            bridge.close()
        for program in self.programs:
            program.kill()

    def start_bridge(self, **world):
        program = self.launch(world)
        program.wait_until_serving()
        return program

    def moved(self):
        """Ends the program through ziqble. Returns how many bytes the peripheral has received and sent."""
        assert self.run("exit", "--wait").returncode == 0
        self.programs[-1].wait()
        return self.programs[-1].accounts()[0][:2]


@pytest.fixture(scope="session")
def host():
    if not WINE:
        if LAB:
            machine.wait_for_adapters()
        yield Linux
        return
    with contextlib.closing(Wine(BUILD)) as wine:
        yield wine


@pytest.fixture
def rig(host):
    with tempfile.TemporaryDirectory(prefix="ziqble-") as folder:
        made = Rig(Path(folder), host)
        try:
            yield made
            if not made.failed:
                made.finish()
        finally:
            made.close()
            if LAB and made.failed:
                lab.start_anew()


def peripheral(**settings):
    return {"peripherals": [settings]}
