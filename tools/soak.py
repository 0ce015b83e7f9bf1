"""The soak test: soak.py PROGRAM [MINUTES] [--seed N] [--sessions N] [--scale N] [--sanitized]"""
import argparse
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from bridge_client import Deviation
from soak_round import Round, Tally
from soak_sessions import KINDS, talk

IDLE_CHECK_EVERY = 5  # sessions


def arguments():
    parser = argparse.ArgumentParser(prog="tools/soak")
    parser.add_argument("program", type=Path)
    parser.add_argument("minutes", type=float, nargs="?", default=1)
    parser.add_argument("--seed", type=int, default=random.SystemRandom().getrandbits(32))
    parser.add_argument("--sessions", type=int, help="ends after that many sessions instead")
    parser.add_argument("--scale", type=float, default=50, help="the simulated world's time scale")
    parser.add_argument("--sanitized", action="store_true", help="memory is not checked")
    return parser.parse_args()


class Soak:
    def __init__(self, options, folder):
        self.options, self.folder = options, folder
        self.tally = Tally()
        self.end = time.monotonic() + 60 * options.minutes
        self.session = 0
        self.round = None
        self.doing = "start"

    def over(self):
        if self.options.sessions:
            return self.session >= self.options.sessions
        return time.monotonic() > self.end

    def run(self):
        while not self.over():
            self.play_round()

    def play_round(self):
        options, number = self.options, self.tally.rounds
        rng = random.Random(f"{options.seed}/{number}")
        folder = self.folder / f"round{number}"
        self.doing = "start"
        self.round = Round(options.program.resolve(), folder, rng, options.scale, self.tally, not options.sanitized)
        try:
            self.play_sessions(number, rng)
        except (Deviation, OSError, subprocess.TimeoutExpired) as problem:
            self.explain(problem)
        finally:
            self.round.stop()
        shutil.rmtree(folder)

    def play_sessions(self, number, rng):
        self.round.program.wait_until_serving()
        for count in range(rng.randint(60, 100)):
            if self.over():
                break
            self.play_session(number, count)
        self.doing = "end"
        self.round.check_idle()
        if rng.random() < 0.5:
            talk(self.round, rng)
        self.round.end(by_signal=rng.random() < 0.5)

    def play_session(self, number, count):
        rng = random.Random(f"{self.options.seed}/{number}/{count}")
        # The first session is a plain one, in which the program sets up what it keeps for good.
        kind = rng.choices(list(KINDS), KINDS.values())[0] if count else talk
        self.doing = f"session {count} ({kind.__name__})"
        kind(self.round, rng)
        self.round.check_running()
        self.session += 1
        self.tally.sessions[kind.__name__] += 1
        if count % IDLE_CHECK_EVERY == 0:
            self.round.check_idle()

    def explain(self, problem):
        for line in self.round.program.log_lines(40):
            print(line.rstrip()[:160], file=sys.stderr)
        sys.stderr.write(self.round.program.errors.read_text(errors="replace"))
        sys.exit(f"error: {problem}\nseed {self.options.seed}, round {self.tally.rounds}, {self.doing}; "
                 f"scenario, log and standard error are in {self.round.program.log.parent}")


def listed(counter):
    return ", ".join(f"{count} {name}" for name, count in counter.most_common()) or "none"


def report(tally, seed, seconds):
    sessions = tally.sessions.total()
    print(f"""\
Seed {seed}, {tally.rounds} rounds, {sessions} sessions in {seconds:.0f} s ({sessions / seconds:.1f} per second)
Sessions: {listed(tally.sessions)}
Lines of links: {listed(tally.lines)}
Bytes: {tally.sent} sent, {tally.received} received, {tally.compared} compared
Losses told: {", ".join(f"{tally.losses[name]} x {name} ({tally.lost[name]} bytes)" for name in tally.losses)}; \
{tally.no_credits} x no credits
Gaps between bytes that came back: {tally.gap_bytes} bytes, all told
Highest: {tally.memory / 1e6:.1f} MB, {tally.threads} threads, {tally.descriptors} descriptors
Soak: {sessions} sessions, no fault found""")


def main():
    options = arguments()
    print(f"Seed {options.seed}", flush=True)
    start = time.monotonic()
    soak = Soak(options, Path(tempfile.mkdtemp(prefix="ziqble-soak-")))
    soak.run()
    shutil.rmtree(soak.folder)
    report(soak.tally, options.seed, time.monotonic() - start)


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("error: terminated"))
    main()
