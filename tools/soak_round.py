"""One round of the soak test: a program in a world of its own, the client's state, and the checks of both."""
import re
import select
import signal
import time
from collections import Counter

from bridge_client import Program, check, gaps_between, wait_until
from soak_client import DEADLINE, DataPipe, Link, LogWatch, Shell, check_source
from soak_scenario import World

STATS = re.compile(r"RX (\d+) bytes\. TX (\d+) bytes\. LC (\d+)\. RC \d+\. V10\.0\.\d+;BLE ON;LE=Sim Adapter\+9\|;"
                   r"(TIOCONNECTED|TIODISCONNECTED)")
MOST_CREDITS = 40  # that the peripheral may have
MOST_MEMORY = 20e6
MOST_GROWTH = 1.5e6  # after the warm-up; each peripheral of a round keeps its buffers
WARM_UP = 5  # checks of the memory before growth counts


class Tally:
    """Counts what happened in the whole run."""

    def __init__(self):
        self.sessions, self.lines, self.lost, self.losses = Counter(), Counter(), Counter(), Counter()
        self.rounds = self.sent = self.received = self.compared = self.gap_bytes = self.no_credits = 0
        self.memory = self.threads = self.descriptors = 0

    def add(self, other):
        for name, value in vars(other).items():
            highest = name in ("memory", "threads", "descriptors")
            setattr(self, name, max(getattr(self, name), value) if highest else getattr(self, name) + value)


class Round:
    def __init__(self, executable, folder, rng, scale, tally, memory_checked):
        self.tally, self.memory_checked, self.scale = tally, memory_checked, scale
        self.world = World(rng, scale)
        folder.mkdir()
        self.program = Program(executable, folder, self.world.document())
        self.log = LogWatch(self.program.log)
        self.client, self.data, self.link = None, None, None
        self.starting = []  # links whose "connect" has not been answered yet
        self.lost_before = 0
        self.idle = None  # number of threads and descriptors without a link
        self.memory_checks, self.first_memory = 0, None

    # The command pipe

    def new_shell(self):
        return Shell(self.program.host.open(self.program.command), self.saw_link_line, self.saw_reply)

    def shell(self):
        if self.client is None or self.client.ended:
            self.client = self.new_shell()
        return self.client

    def saw_link_line(self, line):
        check(self.link, f"{line!r} came without a link")
        self.tally.lines[line] += 1
        self.link.saw(line)

    def saw_reply(self, line):
        if self.starting:
            check(line == "OK", f"connect was answered with {line!r}")
            self.link = self.starting.pop(0)

    def stats(self):
        """Returns bytes received, bytes sent, and whether a link is running."""
        line = self.shell().ask("stats")
        found = STATS.fullmatch(line)
        check(found and int(found[3]) <= MOST_CREDITS, f"unexpected statistics: {line!r}")
        return int(found[1]), int(found[2]), found[4] == "TIOCONNECTED"

    # The link

    def connect(self, *peripherals):
        """Sends a "connect" for each peripheral, without a pause between them."""
        self.starting = [Link(one) for one in peripherals]
        shell = self.shell()
        self.watched_before = self.log.count("watched")
        shell.send("".join(f"connect {one.address}\n" for one in peripherals).encode())
        for one in peripherals:
            shell.reply(f"connect {one.address}")
        self.end_data()
        self.lost_before = self.log.lost_bytes()
        self.peripheral = peripherals[-1]

    def outcome(self):
        """Waits until the client is told of the link; returns whether it came up."""
        self.shell().wait(self.link.told, f"the outcome of the link to {self.link.name}")
        return not self.link.over()

    def wait_until_watched(self):
        """The program begins to watch the connection just after it has told that the link is up."""
        wait_until(lambda: self.log.count("watched") > self.watched_before, DEADLINE, "the watch over the connection")

    def open_early(self):
        """Tries to open the data pipe, also while the link is being set up; returns whether that went well."""
        try:
            self.data = DataPipe(self.program.host.open(self.program.data))
        except (ConnectionRefusedError, FileNotFoundError):
            return False
        return True

    def open_data(self):
        opened = self.open_early()
        if not opened:  # the pipe is gone only if the link was lost meanwhile, which has to be told
            self.shell().wait(self.link.over, "a line about the link whose data pipe is gone")
        return opened

    def bring_up(self, peripheral):
        """Connects and opens the data pipe; returns whether both went well."""
        self.connect(peripheral)
        return self.outcome() and self.open_data()

    def lost(self):
        return self.log.lost_bytes() - self.lost_before

    def disconnect(self):
        self.shell().expect("disconnect", "OK")
        self.end_data()

    def quit(self):
        self.shell().send(b"quit\n")
        self.shell().read_to_end(DEADLINE)

    def vanish(self):
        self.client.close()
        self.end_data()

    def end_data(self):
        """Waits until the program has closed the data pipe, and checks what was received."""
        if self.data:
            self.check_data(self.data.read_to_end(DEADLINE))

    def drop_data(self):
        """Closes the data pipe on the client's side."""
        self.data.close()
        self.check_data(bytes(self.data.come))

    def check_data(self, received):
        data, self.data = self.data, None
        self.tally.sent += len(data.sent)
        self.tally.received += len(received)
        self.compare(bytes(data.sent), received)
        self.tally.compared += len(received)

    def compare(self, sent, received):
        if self.peripheral.traffic == "source":
            return check_source(received)
        missing, lost = sum(gaps_between(sent, received)), self.lost()
        check(missing <= lost, f"{missing} bytes are missing between those that came back, {lost} were told lost")
        self.tally.gap_bytes += missing

    # Traffic

    def push(self, payload, piece):
        """Writes all of it, as long as the link lasts, and reads what comes meanwhile."""
        self.converse(payload, piece, lambda rest: not rest)

    def echo(self, payload, piece):
        """Writes all of it and waits until each byte has come back or its loss was told."""
        data = self.data
        self.converse(payload, piece, lambda rest: not rest and len(data.come) >= len(data.sent) - self.lost())

    def converse(self, payload, piece, done):
        data, shell, rest = self.data, self.shell(), memoryview(payload)
        end = time.monotonic() + DEADLINE
        while not done(rest) and not data.ended and not self.link.over():
            check(time.monotonic() < end,
                  f"nothing has moved for {DEADLINE} s: {len(data.sent)} bytes sent, {len(data.come)} came back, "
                  f"{self.lost()} told lost, {len(rest)} waiting")
            select.select([data.socket, shell.socket], [data.socket] if rest else [], [], 0.005)
            come, count = data.pull(), data.offer(rest[:piece]) if rest else 0
            rest = rest[count:]
            shell.pull()
            if count or come:
                end = time.monotonic() + DEADLINE
        if data.ended:
            shell.wait(self.link.over, "a line about the link whose data pipe was closed")

    # Checks from outside

    def figures(self):
        """Returns the program's threads, descriptors and resident bytes."""
        found = *self.program.host.resources(self.program), self.program.host.memory(self.program)
        self.tally.threads = max(self.tally.threads, found[0])
        self.tally.descriptors = max(self.tally.descriptors, found[1])
        self.tally.memory = max(self.tally.memory, found[2])
        return found

    def check_running(self):
        check(self.program.running(), f"the program ended with exit code {self.program.process.poll()}")
        self.figures()

    def check_idle(self):
        """Checks that after "disconnect" nothing of any link is left."""
        self.disconnect()
        if self.idle is None:
            self.idle = self.steady_figures()
        wait_until(self.at_rest, DEADLINE, f"returning to {self.idle} threads and descriptors")
        self.check_memory()

    def steady_figures(self):
        """Returns threads and descriptors once they have not changed for a while."""
        same, last = 0, None
        while same < 20:
            time.sleep(0.01)
            now = self.figures()[:2]
            same, last = same + 1 if now == last else 0, now
        return last

    def at_rest(self):
        now = self.figures()
        return now[0] <= self.idle[0] and now[1] <= self.idle[1]

    def check_memory(self):
        if not self.memory_checked:
            return
        memory = self.figures()[2]
        check(memory < MOST_MEMORY, f"{memory} bytes of memory are in use")
        self.memory_checks += 1
        if self.memory_checks <= WARM_UP:
            self.first_memory = memory
        check(memory - self.first_memory < MOST_GROWTH, f"memory grew from {self.first_memory} to {memory} bytes")

    def end(self, by_signal):
        """Ends the program, whatever it is doing, and checks what it leaves behind."""
        if by_signal:
            self.program.process.send_signal(signal.SIGTERM)
        else:
            self.shell().send(b"exit\n")
        if self.client and not self.client.ended:
            self.client.read_to_end(DEADLINE)
        code = self.program.wait(DEADLINE)
        check(code == 0, f"the program ended with exit code {code}")
        self.end_data()
        self.log.read()
        check(any(line.endswith("| Goodbye!\n") for line in self.program.log_lines(3)), "the log lacks its last line")
        left = [path.name for path in self.program.log.parent.iterdir()]
        check(sorted(left) == ["errors", "log", "scenario.json"], f"files are left behind: {left}")
        accounts = self.program.check_errors()
        check(len(accounts) == len(self.world.peripherals), f"{len(accounts)} peripherals have given an account")
        self.tally.losses.update(self.log.times)
        self.tally.lost.update(self.log.lost)
        self.tally.no_credits += self.log.events["no credits"]
        self.tally.rounds += 1

    def stop(self):
        self.program.stop()
        for pipe in (self.client, self.data):
            if pipe:
                pipe.close()
        self.log.file.close()
