"""The soak test: soak.py PROGRAM [MINUTES] [--seed N] [--sessions N] [--scale N] [--players N] [--sanitized]"""
import argparse
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from functools import partial
from itertools import count
from multiprocessing import Pool
from pathlib import Path

from bridge_client import Deviation
from soak_round import Round, Tally
from soak_sessions import KINDS, talk

SESSIONS = 80  # of a round
IDLE_CHECK_EVERY = 5  # sessions


def arguments():
    parser = argparse.ArgumentParser(prog="tools/soak")
    parser.add_argument("program", type=Path)
    parser.add_argument("minutes", type=float, nargs="?", default=1)
    parser.add_argument("--seed", type=int, default=random.SystemRandom().getrandbits(32))
    parser.add_argument("--sessions", type=int, help="ends after that many sessions instead")
    parser.add_argument("--scale", type=float, default=50, help="the simulated world's time scale")
    # The program and its clients mostly wait for one another.
    parser.add_argument("--players", type=int, default=4 * os.cpu_count(), help="how many rounds run at once")
    parser.add_argument("--sanitized", action="store_true", help="memory is not checked")
    return parser.parse_args()


def exit_when_terminated(message):
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(message))


class Player:
    """Plays one round after the other. What a round does follows from the seed and the round's number alone."""

    def __init__(self, options, folder, end):
        self.options, self.folder, self.end = options, folder, end
        self.tally = Tally()
        self.doing = "start"

    def over(self):
        return not self.options.sessions and time.monotonic() > self.end

    def play_round(self, number):
        options = self.options
        rng = random.Random(f"{options.seed}/{number}")
        sessions = min(SESSIONS, options.sessions - number * SESSIONS) if options.sessions else SESSIONS
        folder = self.folder / f"round{number}"
        self.doing = "start"
        round_ = Round(options.program.resolve(), folder, rng, options.scale, self.tally, not options.sanitized)
        try:
            self.play_sessions(round_, number, sessions, rng)
        except (Deviation, OSError, subprocess.TimeoutExpired) as problem:
            self.explain(problem, round_, number)
        finally:
            round_.stop()
        shutil.rmtree(folder)

    def play_sessions(self, round_, number, sessions, rng):
        round_.program.wait_until_serving()
        for session in range(sessions):
            if self.over():
                break
            self.play_session(round_, session, random.Random(f"{self.options.seed}/{number}/{session}"))
        self.doing = "end"
        round_.check_idle()
        if rng.random() < 0.5:
            talk(round_, rng)
        round_.end(by_signal=rng.random() < 0.5)

    def play_session(self, round_, session, rng):
        # The first session is a plain one, in which the program sets up what it keeps for good.
        kind = rng.choices(list(KINDS), KINDS.values())[0] if session else talk
        self.doing = f"session {session} ({kind.__name__})"
        kind(round_, rng)
        round_.check_running()
        self.tally.sessions[kind.__name__] += 1
        if session % IDLE_CHECK_EVERY == 0:
            round_.check_idle()

    def explain(self, problem, round_, number):
        for line in round_.program.ends_of_logs(40).splitlines():
            print(line[:160], file=sys.stderr)
        raise Deviation(f"{problem}\nseed {self.options.seed}, round {number}, {self.doing}; "
                        f"scenario, log and standard error are in {round_.program.log.parent}")


def play(options, folder, end, first):
    player = Player(options, folder, end)
    for number in count(first, options.players):
        if player.over() or (options.sessions and number * SESSIONS >= options.sessions):
            return player.tally
        player.play_round(number)


def play_all(options, folder):
    """Returns the sum of what all players have seen; the first fault ends them all."""
    end = time.monotonic() + 60 * options.minutes
    total = Tally()
    with Pool(options.players, exit_when_terminated, (1,)) as players:
        for tally in players.imap_unordered(partial(play, options, folder, end), range(options.players)):
            total.add(tally)
    return total


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
    folder = Path(tempfile.mkdtemp(prefix="ziqble-soak-"))
    try:
        tally = play_all(options, folder)
    except Deviation as problem:
        sys.exit(f"error: {problem}")
    shutil.rmtree(folder)
    report(tally, options.seed, time.monotonic() - start)


if __name__ == "__main__":
    exit_when_terminated("error: terminated")
    main()
