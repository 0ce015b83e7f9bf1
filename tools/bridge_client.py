"""For all scripts that run the program: the program as a child process, a client of its pipes, and waiting with a deadline."""
import collections
import json
import os
import re
import select
import signal
import socket
import subprocess
import time
from pathlib import Path

DEADLINE = 30  # seconds; long enough for a loaded machine under a sanitizer, and reached only when something hangs
END_LINES = "STATUS CLOSED", "TIO DROP", "ERROR EXP"  # each of them tells that a link is over
SUMMARY = re.compile(r"sim: .*: in (\d+) bytes, out (\d+) bytes, credits granted (\d+) used (\d+), "
                     r"host credits granted (\d+) used (\d+), violations (\d+)$", re.MULTILINE)
Account = collections.namedtuple("Account", "bytes_in bytes_out granted used host_granted host_used violations")


class Deviation(Exception):
    """The program did not do what it should."""


def check(good, what):
    if not good:
        raise Deviation(what)


def wait_until(condition, seconds, what):
    end = time.monotonic() + seconds
    while not condition():
        check(time.monotonic() < end, f"{what} did not happen within {seconds} s")
        time.sleep(0.002)


def seconds_of(call):
    start = time.monotonic()
    result = call()
    return time.monotonic() - start, result


def open_pipe(path):
    pipe = socket.socket(socket.AF_UNIX)
    pipe.settimeout(20)
    try:
        pipe.connect(str(path))
    except OSError:
        pipe.close()
        raise
    return pipe


class Linux:
    """Runs programs as they are; their pipes are sockets in a folder."""
    run, suffix, pipe = [], "", Path.joinpath

    @staticmethod
    def open(pipe, **_):
        return open_pipe(pipe)

    @staticmethod
    def exists(pipe):
        return pipe.exists()

    @staticmethod
    def resources(program):
        """Threads and descriptors."""
        return [len(os.listdir(f"/proc/{program.process.pid}/{kind}")) for kind in ("task", "fd")]

    @staticmethod
    def memory(program):
        """Resident bytes."""
        return int(Path(f"/proc/{program.process.pid}/statm").read_text().split()[1]) * os.sysconf("SC_PAGE_SIZE")


class Pipe:
    """A client of one of the program's pipes. `offer` and `pull` do not wait; the other calls do, and fail when nothing has
    moved for so many seconds."""

    def __init__(self, opened):
        self.socket = opened
        self.socket.setblocking(False)
        self.come = bytearray()  # what has come and was not taken yet
        self.ended = self.broken = False  # nothing more comes; nothing more is taken

    def pull(self, most=65536):
        """Takes what has come, at most so many bytes of it; returns how many."""
        if self.ended:
            return 0
        try:
            piece = self.socket.recv(most)
        except BlockingIOError:
            return 0
        except ConnectionError:
            piece = b""
        self.ended = not piece
        self.come += piece
        return len(piece)

    def offer(self, data):
        """Writes as much as the pipe takes; returns how much that was."""
        try:
            return self.socket.send(data)
        except BlockingIOError:
            return 0
        except ConnectionError:
            self.broken = True
            return 0

    def move(self, sent=b"", until=None, read=True, seconds=DEADLINE):
        """Writes `sent` and reads, both at once, until the condition holds; without one until all is written. It also ends when
        the pipe does. Returns how much the program has taken."""
        rest, end = memoryview(sent), time.monotonic() + seconds
        while not (until() if until else not rest):
            writing, reading = rest and not self.broken, read and not self.ended
            if not (reading or writing):
                break
            check(time.monotonic() < end,
                  f"nothing has moved for {seconds} s: {len(self.come)} bytes have come, {len(rest)} have to go")
            select.select([self.socket] if reading else [], [self.socket] if writing else [], [], 0.05)
            count = self.offer(rest[:65536]) if writing else 0
            rest = rest[count:]
            if (reading and self.pull()) or count:
                end = time.monotonic() + seconds
        return len(sent) - len(rest)

    def take(self, count):
        taken = bytes(self.come[:count])
        del self.come[:count]
        return taken

    def send(self, data, seconds=DEADLINE):
        """Writes and does not read; returns how much the program has taken."""
        return self.move(data, read=False, seconds=seconds)

    def read(self, count, seconds=DEADLINE):
        return self.exchange(b"", count, seconds)

    def exchange(self, sent, count, seconds=DEADLINE):
        """Writes `sent` while it reads `count` bytes, or fewer when the pipe ends."""
        self.move(sent, lambda: len(self.come) >= count, seconds=seconds)
        return self.take(count)

    def read_to_end(self, seconds=DEADLINE):
        """Waits until the program has closed the pipe. Closes it, too, and returns what came before."""
        self.move(until=lambda: False, seconds=seconds)
        self.close()
        return self.take(len(self.come))

    def close(self):
        self.ended = self.broken = True
        self.socket.close()


class Shell(Pipe):
    """A client of the command pipe."""

    def command(self, line):
        self.send(line.encode("latin-1") + b"\n")

    def line(self, seconds=DEADLINE):
        """The next line without its end; empty when the program has closed the pipe."""
        self.move(until=lambda: b"\r\n" in self.come, seconds=seconds)
        at = self.come.find(b"\r\n")
        return self.take(at + 2)[:-2].decode("latin-1") if at >= 0 else ""

    def ask(self, command, *answers, seconds=DEADLINE):
        """Sends the command. The lines that follow have to be these; without any, the next line is returned."""
        self.command(command)
        for expected in answers:
            answer = self.line(seconds)
            check(answer == expected, f"{expected!r} was expected upon {command!r}, not {answer!r}")
        return "" if answers else self.line(seconds)


class Program:
    """The program, in a simulated world if one is given, with log and standard error in a folder of its own, where its pipes are,
    too, if none are given. It ends when this process does."""

    def __init__(self, executable, folder, world=None, arguments=None, pipes=None, host=Linux, output=None, **options):
        self.host, self.folder = host, folder
        self.command, self.data = pipes or (host.pipe(folder, name) for name in ("command", "data"))
        self.log, self.errors = folder / "log", folder / "errors"
        environment = {key: value for key, value in os.environ.items() if key != "ZIQBLE_SCENARIO"}
        if world is not None:
            scenario = folder / "scenario.json"
            scenario.write_text(json.dumps(world, indent=1))
            environment["ZIQBLE_SCENARIO"] = str(scenario)
        arguments = ["--cmdPipe", self.command, "--datPipe", self.data] if arguments is None else arguments
        with self.log.open("w") as out, self.errors.open("w") as err:
            self.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *host.run, executable, *arguments],
                                            stdin=subprocess.DEVNULL, stdout=output or out, stderr=err, env=environment, **options)

    def running(self):
        return self.process.poll() is None

    def log_text(self):
        return self.log.read_text(errors="replace").replace("\r\n", "\n")

    def log_lines(self, count):
        return self.log_text().splitlines(True)[-count:]

    def wait_for_log(self, text, times=1, seconds=DEADLINE):
        wait_until(lambda: self.log_text().count(text) >= times or not self.running(), seconds, f"{text!r} in the log ({times})")
        check(self.log_text().count(text) >= times, f"the program ended, and its log does not have {text!r}")

    def wait_until_serving(self):
        self.wait_for_log("Waiting for a client")

    def shell(self):
        return Shell(self.open(self.command))

    def open(self, pipe, **options):
        """Waits until the pipe can be opened: on Windows another client may still have it."""
        end = time.monotonic() + DEADLINE
        while True:
            try:
                return self.host.open(pipe, **options)
            except (ConnectionRefusedError, FileNotFoundError) as problem:
                check(self.running() and time.monotonic() < end, f"the pipe cannot be opened: {problem}")
                time.sleep(0.01)

    def error_text(self):
        return self.errors.read_text(errors="replace").replace("\r", "")

    def accounts(self):
        """What the simulated peripherals have counted, once the program has ended."""
        return [Account(*map(int, found.groups())) for found in SUMMARY.finditer(self.error_text())]

    def check_errors(self, beside=""):
        """Nobody writes to standard error but the simulated world, which has seen no violation. Returns its accounts."""
        rest, accounts = SUMMARY.sub("", self.error_text()).strip(), self.accounts()
        check(rest in ("", beside) and not any(account.violations for account in accounts), self.error_text())
        return accounts

    def check_end(self, beside=""):
        """Checks what a program that has ended leaves behind. Returns what its peripherals have counted."""
        check(self.log_lines(1)[0].endswith("Goodbye!\n"), f"the log ends with {self.log_lines(1)}")
        check(not any(map(self.host.exists, (self.command, self.data))), "a pipe was left behind")
        return self.check_errors(beside)

    def ends_of_logs(self, lines=30):
        """For a report about something that went wrong."""
        return "".join(self.log_lines(lines)) + self.error_text()

    def wait(self, seconds=DEADLINE):
        """The exit code."""
        return self.process.wait(seconds)

    def interrupt(self):
        """Ctrl-C; Wine makes it of this signal."""
        self.process.send_signal(signal.SIGINT)

    def kill(self):
        """At once: the program cannot clean up."""
        self.process.kill()
        self.process.wait()

    def stop(self):
        if not self.running():
            return
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.kill()


class Bridge:
    """A running program with a client on its command pipe, and on its data pipe while there is a link."""

    def __init__(self, program, address):
        self.program, self.address, self.data = program, address, None
        self.shell = program.shell()

    def ask(self, command, *answers):
        # A link that does not come up resets all radios, one after the other.
        return self.shell.ask(command, *answers, seconds=180)

    def connect(self, **options):
        """Brings the link up; returns the open data pipe."""
        self.ask(f"connect {self.address}", "OK", "CONNECT TIO")
        self.data = Pipe(self.program.open(self.program.data, **options))
        return self.data

    def echo(self, count, seconds=DEADLINE):
        sent = os.urandom(count)
        back = self.data.exchange(sent, count, seconds)
        check(back == sent, f"the echo differs: {len(back)} bytes came back for {count}")

    def disconnect(self):
        """Takes the link down; returns what came on the data pipe before its end."""
        self.ask("disconnect", "OK")
        return self.data.read_to_end()

    def expect_loss(self):
        """Checks that the client is told of the link's end, by one line or by two, and that the data pipe ends. The second
        line may come late; after the next command's answer neither can come any more."""
        told = self.shell.line(180)
        check(told in END_LINES, f"the client was told {told!r}")
        for command, last in ("disconnect", "OK"), ("stats", "RX "):
            self.shell.command(command)
            while not (answer := self.shell.line()).startswith(last):
                check(answer in END_LINES, f"the client was told {answer!r}")
        return self.data.read_to_end()

    def session(self, count=1000):
        self.connect()
        self.echo(count)
        self.disconnect()

    def stats(self):
        return self.ask("stats")

    def exit(self):
        self.shell.command("exit")
        check((code := self.program.wait()) == 0, f"the program ended with exit code {code}")

    def close(self):
        for pipe in filter(None, [self.shell, self.data]):
            pipe.close()
        self.program.stop()


class Ziqble:
    """Runs ziqble for the bridge on these pipes. Children end when this process does."""

    def __init__(self, executable, pipes, host=Linux, folder=None):
        self.command = [*host.run, executable, "--cmd-pipe", pipes[0], "--dat-pipe", pipes[1]]
        self.folder, self.children = folder, []

    def run(self, *arguments, **options):
        return subprocess.run([*self.command, *arguments], **{"capture_output": True, "timeout": 60} | options)

    def spawn(self, *arguments, **options):
        child = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *self.command, *arguments], stdin=subprocess.PIPE,
                                 stdout=subprocess.PIPE, **{"stderr": subprocess.PIPE} | options)
        self.children.append(child)
        return child

    def serve(self, address, *arguments, **options):
        """A serial port or a TCP port, once its link is up; with the events that ziqble writes to a file in the folder."""
        events = Events(self.folder / "events")
        child = self.spawn("serve", address, "--events", events.path, *arguments, **options)
        events.wait("up")
        return child, events

    def close(self):
        for child in self.children:
            child.kill()
            child.communicate()


class Events:
    """The JSON lines that "ziqble serve" writes."""

    def __init__(self, path):
        self.path = path

    def __call__(self, kind):
        lines = self.path.read_text().splitlines(True) if self.path.exists() else []
        return [event for event in (json.loads(line) for line in lines if line.endswith("\n")) if event["event"] == kind]

    def wait(self, kind, count=1):
        wait_until(lambda: len(self(kind)) >= count, DEADLINE, f"event {kind} number {count}")
        return self(kind)[count - 1]


def source_bytes(count, first=0):
    """The peripheral's serial mode "source" sends this pattern."""
    return bytes((position + position // 251) & 0xFF for position in range(first, first + count))


def check_source(received):
    check(received == source_bytes(len(received)), "the source's bytes differ")


def same_length(one, other):
    """How many bytes at the start are equal."""
    limit = min(len(one), len(other))
    if one[:limit] == other[:limit]:
        return limit
    return len(os.path.commonprefix([one[:limit], other[:limit]]))


def gaps_between(sent, received, windows=(16,)):
    """How many random bytes are missing at each gap between the received ones, which have to be in order; those behind the last
    one do not count. So many bytes of the window are at one place only; pieces may be shorter than the longest window."""
    gaps, at, rest = [], 0, bytes(received)
    while True:
        same = same_length(sent[at:], rest)
        at, rest = at + same, rest[same:]
        if not rest:
            return gaps
        found = next((place for size in windows if (place := sent.find(rest[:size], at)) >= 0), -1)
        check(found >= 0, f"bytes came back that were not sent, or not in this order: {len(received) - len(rest)} "
                          f"of {len(received)} were right, then {rest[:16].hex()}")
        gaps.append(found - at)
        at = found
