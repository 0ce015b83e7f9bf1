"""Measures the program on a real Bluetooth stack, beside a bare bleak loop: lab_bench.py PROGRAM SIM-PROGRAM
Runs in the lab (docs/lab.md). Prints a table in Markdown with medians and with the ratios of single rounds. How long a
"connect" of the simulated program takes is measured too: those are the fixed sleeps that every "connect" contains."""
import json
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from statistics import median

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tools"))
from bridge_client import Bridge, Program, check, check_source, wait_until  # noqa: E402
from lab_rig.machine import DEADLINE, PERIPHERAL_ADDRESS, as_tester, wait_for_adapters  # noqa: E402
from lab_rig.peripheral import Peripheral  # noqa: E402

BYTES = 500_000
ROUNDS = 3
SIM_ADDRESS = "00:1A:7D:DA:71:13"
TICKS = os.sysconf("SC_CLK_TCK")


def cpu_seconds(process):
    fields = Path(f"/proc/{process.pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


def bleak(peripheral, way):
    peripheral.configure(serial="sink" if way == "out" else f"source:{BYTES}")
    loop = subprocess.run([sys.executable, ROOT / "bench/lab_bleak.py", way, PERIPHERAL_ADDRESS, str(BYTES)], check=True,
                          stdout=subprocess.PIPE, text=True)
    result = json.loads(loop.stdout)
    return result["bytes"] / result["seconds"] / 1000, result["cpu"] / result["bytes"] * 1e6


def bridge(peripheral, way, executable, folder):
    peripheral.configure(serial="sink")
    one = Bridge(Program(executable, folder, **as_tester(folder)), PERIPHERAL_ADDRESS)
    try:
        data = one.connect()
        arrived = peripheral.counters()["bytes_in"]
        data.send(b"here")  # bytes from the peripheral are dropped until the program serves the data pipe
        wait_until(lambda: peripheral.counters()["bytes_in"] == arrived + 4, DEADLINE, "the first bytes' arrival")
        start, cpu = time.monotonic(), cpu_seconds(one.program.process)
        if way == "out":
            data.send(os.urandom(BYTES), 120)
            wait_until(lambda: peripheral.counters()["bytes_in"] == arrived + 4 + BYTES, 120, "every byte's arrival")
        else:
            peripheral.do(f"set serial source:{BYTES}")
            check_source(data.read(BYTES, 120))
        seconds, cpu = time.monotonic() - start, cpu_seconds(one.program.process) - cpu
        one.disconnect()
        one.exit()
        return BYTES / seconds / 1000, cpu / BYTES * 1e6
    finally:
        one.close()


def connect_seconds(executable, folder, address):
    one = Bridge(Program(executable, folder, **as_tester(folder)), address)
    try:
        start = time.monotonic()
        one.ask(f"connect {address}", "OK", "CONNECT TIO")
        seconds = time.monotonic() - start
        one.ask("disconnect", "OK")
        one.exit()
        return seconds
    finally:
        one.close()


def main(program, sim):
    wait_for_adapters()
    peripheral = Peripheral()
    rows = []
    with tempfile.TemporaryDirectory(prefix="ziqble-lab-") as temporary:
        Path(temporary).chmod(0o755)

        def folder():
            return Path(tempfile.mkdtemp(dir=temporary))

        for way in ("out", "in"):
            # In turns, so that other load on the machine slows down both.
            runs = [(bridge(peripheral, way, program, folder()), bleak(peripheral, way)) for _ in range(ROUNDS)]
            for index, measure in enumerate(("kB/s", "CPU seconds per MB")):
                ours, theirs, ratios = zip(*((a[index], b[index], a[index] / b[index]) for a, b in runs))
                rows.append(f"| {way}, {measure} | {median(ours):.2f} | {median(theirs):.2f} | {median(ratios):.2f} "
                            f"({min(ratios):.2f} to {max(ratios):.2f}) |")
        peripheral.configure()
        sleeps = connect_seconds(sim, folder(), SIM_ADDRESS)
        whole = connect_seconds(program, folder(), PERIPHERAL_ADDRESS)
        violations = peripheral.counters()["violations"]
    peripheral.close()
    check(not violations, f"{violations} violations of the flow control")
    print("| measure | ZIQBLEConnect | bleak loop | ratio |\n| --- | --: | --: | --: |\n" + "\n".join(rows))
    print(f"\nFrom \"connect\" to \"CONNECT TIO\": {whole:.2f} s, {sleeps:.2f} s of it fixed sleeps, "
          f"{whole - sleeps:.2f} s the rest.")


main(*(Path(name).resolve() for name in sys.argv[1:]))
