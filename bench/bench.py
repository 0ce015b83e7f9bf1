"""Measures the bridge, and socat with the same loads, and prints a table in Markdown."""
import argparse
import json
import os
import platform
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

from relays import ADDRESS, Bridge, Linux, Served, Socat, SocatPort, Wine, stop

# A few hundred credits are used up before the thread that brings new ones has woken up. So the bridge itself is measured with
# plenty of credits; the figures for fewer credits are shown beside it.
PLENTY = {"initial_credits": 32000, "regrant_at": 16000}
FEWER = {"255, again at 200": {"initial_credits": 255, "regrant_at": 200}, "32, again at 8 (default)": {}}
# A block of 2048 bytes makes eight packets of 244 bytes and one of 96: 769 packets a second carry 175 kB/s each way.
LINK_2M = {"interval_us": 13003, "packets_per_interval": 10}
PACE = 2048 / 9 * 10 / 13003e-6
SOCAT_PACE = (round(10 * 244 / PACE * 1e6), 10)  # the stand-in behind socat sends full packets only
SOURCE = "source:1000000000000"


def run_load(relay, mode, seconds):
    """Runs the client. Returns its result, with the relay's CPU seconds meanwhile and its peak memory added."""
    cpu = relay.cpu_seconds()
    load = subprocess.Popen([*relay.load, mode, relay.near, str(seconds)], stdin=subprocess.PIPE,
                            stdout=subprocess.PIPE, text=True)
    try:
        relay.client_connected()
        line = load.stdout.readline()
        if not line:
            raise RuntimeError(f"pipe_load {mode} against {relay.name} failed")
        received_at = time.monotonic()
        result = json.loads(line)
        if mode == "send" and isinstance(relay, Bridge):
            # The client's times are those of Wine's clock, so only the difference is added.
            result["end"] += relay.all_arrived(result["sent"]) - received_at
        result["cpu"] = relay.cpu_seconds() - cpu
        result["memory"] = relay.peak_megabytes()
        load.stdin.close()
        if mode == "send" and isinstance(relay, Socat):
            result["end"] = relay.all_arrived(result["sent"])
        return result
    finally:
        load.stdin.close()
        stop(load)


def throughput(relay, mode, seconds):
    """Bytes per second one way, CPU seconds per megabyte moved (both ways counted), CPU share, peak memory in MB."""
    result = run_load(relay, mode, seconds)
    if mode == "echo" and not (result["same"] and result["sent"] == result["received"]):
        raise RuntimeError(f"{relay.name}: the echo lost or changed bytes: {result}")
    count = result["sent"] if mode == "send" else result["received"]
    moved = count * (2 if mode == "echo" else 1)
    duration = result["end"] - result["start"]
    return {"rate": count / duration, "cpu": result["cpu"] / (moved / 1e6), "share": result["cpu"] / duration,
            "memory": result["memory"]}


class Bench:
    def __init__(self, host, folder):
        self.host, self.folder = host, folder
        self.rows = []
        self.served = []
        self.accounts = []
        self.runs = 0

    def fresh_folder(self):
        self.runs += 1
        folder = self.folder / str(self.runs)
        folder.mkdir()
        return folder

    def bridge(self, what, measure, **peripheral):
        print(f"{what}: the bridge ...", file=sys.stderr, flush=True)
        peripheral = {"address": ADDRESS, "name": "BENCH", "tx_mtu": 244, **peripheral}
        relay = Bridge(self.host, self.fresh_folder(), peripheral)
        with relay:
            result = measure(relay)
        self.accounts.append(f"{what}: {relay.account}")
        return result

    def socat(self, what, measure, part, pace=()):
        """None under Wine, where there is no socat to compare with."""
        if self.host is not Linux:
            return None
        print(f"{what}: socat ...", file=sys.stderr, flush=True)
        with Socat(self.fresh_folder(), part, pace) as relay:
            return measure(relay)

    def row(self, what, figure, ours, theirs=None, form="{:.1f}"):
        """Adds a row. `figure` is a function that takes the figure out of a result."""
        cells = [what, form.format(figure(ours)), "-", "-"]
        if theirs:
            cells[2] = form.format(figure(theirs))
            cells[3] = f"{figure(ours) / figure(theirs):.2f}" if figure(theirs) else "-"
        self.rows.append(cells)

    def one_way(self, what, mode, serial, part, seconds):
        def measure(relay):
            return throughput(relay, mode, seconds)
        results = self.bridge(what, measure, serial=serial, **PLENTY), self.socat(what, measure, part)
        self.row(rate_title(what, mode), lambda result: result["rate"] / 1e6, *results)
        self.row(f"{what}, CPU seconds per MB moved", lambda result: result["cpu"], *results, form="{:.4f}")
        self.row(f"{what}, peak memory in MB", lambda result: result["memory"], *results)

    def round_trip(self, what, seconds, pace=(), **link):
        def measure(relay):
            return run_load(relay, "rtt", seconds)
        results = (self.bridge(what, measure, serial="echo", **PLENTY, **link),
                   self.socat(what, measure, "far-echo", pace))
        for part in ("p50", "p99"):
            self.row(f"{what}, {part} in µs", lambda result: result[part] * 1e6, *results)

    def fewer_credits(self, seconds):
        for credits, settings in FEWER.items():
            for way, mode, serial in (("out", "send", "sink"), ("both at once", "echo", "echo")):
                what = f"{way}, credits {credits}"
                ours = self.bridge(what, lambda relay: throughput(relay, mode, seconds), serial=serial, **settings)
                self.row(rate_title(what, mode), lambda result: result["rate"] / 1e6, ours)

    def paced(self, seconds):
        what = f"paced, both at once for {seconds:g} s"
        results = (self.bridge(what, lambda relay: paced_echo(relay, seconds), serial="echo", link=LINK_2M),
                   self.socat(what, lambda relay: throughput(relay, "echo", seconds), "far-echo", SOCAT_PACE))
        for way in ("out", "in"):
            self.row(f"{what}, {way} in % of the pace", lambda result: 100 * result.get(way, result["rate"]) / PACE,
                     *results, form="{:.2f}")
        self.row(f"{what}, CPU share in %", lambda result: 100 * result["share"], *results, form="{:.2f}")
        self.row(f"{what}, peak memory in MB", lambda result: result["memory"], *results)

    def startup(self):
        times = sorted(startup_milliseconds(self.host, self.fresh_folder()) for _ in range(9))
        self.row("start to waiting for a client, median in ms", lambda result: result, times[len(times) // 2])

    def serve(self, seconds):
        """What "ziqble serve" adds to the bridge: the same loads on its serial port, on socat's, and on the bare data pipe."""
        if self.host is not Linux:
            return

        def measure(mode, **settings):
            peripheral = {"address": ADDRESS, "name": "BENCH", "tx_mtu": 244, "serial": "echo", **settings}
            results = []
            for make in Served, SocatPort:
                print(f"serial port: {make.name} ...", file=sys.stderr, flush=True)
                with make(self.fresh_folder(), peripheral) as relay:
                    results.append(mode(relay))
            return [*results, self.bridge("beside the serial ports", mode, serial="echo", **settings)]

        def echo(relay):
            return throughput(relay, "echo", seconds)

        def round_trip(relay):
            return run_load(relay, "rtt", seconds)

        echoes, paced = [measure(echo, **PLENTY)], [measure(echo, link=LINK_2M)]
        # The slowest trips are those that the machine held up: one round alone tells little about them, so it is the median of five.
        trips = [measure(round_trip, **PLENTY) for _ in range(5)]
        paced_trips = [measure(round_trip, link=LINK_2M) for _ in range(5)]
        for title, form, rounds, figure in (
                ("both at once, MB/s each way", "{:.1f}", echoes, lambda result: result["rate"] / 1e6),
                ("both at once, own CPU seconds per MB moved", "{:.4f}", echoes, lambda result: result["cpu"]),
                ("paced, both at once, MB/s each way", "{:.3f}", paced, lambda result: result["rate"] / 1e6),
                ("paced, both at once, own CPU seconds per MB moved", "{:.4f}", paced, lambda result: result["cpu"]),
                ("round trip of 20 bytes, p50 in ms", "{:.3f}", trips, lambda result: result["p50"] * 1e3),
                ("round trip of 20 bytes, p99 in ms", "{:.3f}", trips, lambda result: result["p99"] * 1e3),
                ("paced round trip of 20 bytes, p50 in ms", "{:.3f}", paced_trips, lambda result: result["p50"] * 1e3),
                ("paced round trip of 20 bytes, p99 in ms", "{:.3f}", paced_trips, lambda result: result["p99"] * 1e3)):
            ours, peer, bare = (statistics.median(map(figure, side)) for side in zip(*rounds))
            self.served.append([title, *map(form.format, (ours, peer, bare)), f"{ours / peer:.2f}", f"{ours / bare:.2f}"])

    def report(self):
        columns = 4 if self.host is Linux else 2
        print(f"\n{platform.platform()}, {os.cpu_count()} cores; pace {PACE / 1000:.1f} kB/s each way\n")
        for cells in (["measure", self.host.NAME, "socat", "ratio"], ["---", "--:", "--:", "--:"], *self.rows):
            print(f"| {' | '.join(cells[:columns])} |")
        if self.served:
            print()
            for cells in (["measure", "ziqble serve --pty", "socat PTY", "bare data pipe", "ziqble : socat", "ziqble : bare"],
                          ["---", "--:", "--:", "--:", "--:", "--:"], *self.served):
                print(f"| {' | '.join(cells)} |")
        print("\nWhat the simulated peripherals counted:\n")
        for account in self.accounts:
            print(f"    {account}")


def rate_title(what, mode):
    return f"{what}, MB/s" + (" each way" if mode == "echo" else "")


def paced_echo(relay, seconds):
    """As throughput(), with the rates of both directions taken from two samples of the bridge's own counters."""
    samples = []

    def take_sample():
        samples.append((time.monotonic(), *relay.counters()))

    timers = [threading.Timer(delay, take_sample) for delay in (0.5, seconds - 0.1)]
    for timer in timers:
        timer.start()
    result = throughput(relay, "echo", seconds)
    for timer in timers:
        timer.join()
    (begin, in0, out0), (end, in1, out1) = samples
    return result | {"in": (in1 - in0) / (end - begin), "out": (out1 - out0) / (end - begin)}


def startup_milliseconds(host, folder):
    start = time.monotonic()
    program = subprocess.Popen([*host.run, host.PROGRAM, "--cmdPipe", host.pipe(folder, "command")], stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    try:
        for line in program.stdout:
            if "Waiting for a client to connect" in line:
                return (time.monotonic() - start) * 1000
        raise RuntimeError("the program ended before it waited for a client")
    finally:
        stop(program)
        program.stdout.close()


def main():
    options = argparse.ArgumentParser(prog="tools/bench", description=__doc__)
    options.add_argument("--seconds", type=float, default=3, help="for each unpaced measurement (3)")
    options.add_argument("--paced-seconds", type=float, default=30, help="for the paced measurement (30)")
    options.add_argument("--windows", action="store_true", help="measure the program for Windows, under Wine")
    chosen = options.parse_args()
    with tempfile.TemporaryDirectory(prefix="ziqble-bench-") as temporary:
        bench = Bench(Wine() if chosen.windows else Linux, Path(temporary))
        bench.one_way("out", "send", "sink", "sink", chosen.seconds)
        bench.one_way("in", "recv", SOURCE, "source", chosen.seconds)
        bench.one_way("both at once", "echo", "echo", "far-echo", chosen.seconds)
        bench.fewer_credits(chosen.seconds)
        bench.round_trip("round trip of 20 bytes", chosen.seconds)
        bench.paced(chosen.paced_seconds)
        bench.round_trip("paced round trip of 20 bytes", chosen.seconds, SOCAT_PACE, link=LINK_2M)
        bench.serve(chosen.seconds)
        bench.startup()
        bench.report()


if __name__ == "__main__":
    main()
