"""What the soak test's clients do: one function for each kind of session."""
import time

from bridge_client import check, wait_until
from soak_client import DEADLINE
from soak_scenario import OVER, Peripheral

LONGEST_LINE = 64 * 1024  # that the program takes for a command
LONGEST_GARBAGE = 200 * 1024
READ_SIZE = 2048  # what the program reads from the data pipe at once


def payload_of(round_, rng):
    small = round_.peripheral.keys.get("tx_mtu", 244) < 50 or "initial_credits" in round_.peripheral.keys
    return rng.randbytes(rng.randint(1, 6000 if small else 30000))


def use(round_, rng):
    """Moves bytes in the way that fits the peripheral."""
    piece = rng.choice([100, 2048, 65536])
    match round_.peripheral.traffic:
        case "echo":
            round_.echo(payload_of(round_, rng), piece)
        case "source":
            read_source(round_, rng.randint(1000, 30000))
        case "sink":
            fill(round_, payload_of(round_, rng), piece)
        case "stalled":
            stall(round_, rng.randbytes(rng.randint(1, READ_SIZE)))
        case "unsure":
            round_.data.offer(rng.randbytes(500))


def read_source(round_, count):
    data = round_.data
    end = time.monotonic() + DEADLINE
    while len(data.come) < count and not round_.link.over():
        check(time.monotonic() < end, f"a source gave {len(data.come)} of {count} bytes in {DEADLINE} s")
        time.sleep(0.001)
        data.pull(min(65536, count - len(data.come)))
        round_.shell().pull()


def fill(round_, payload, piece):
    round_.push(payload, piece)
    sent = len(round_.data.sent)
    wait_until(lambda: round_.stats()[1] == sent, DEADLINE, f"counting {sent} bytes to the peripheral")


def stall(round_, payload):
    """Without credits the program cannot send what it has read, and logs that when the link ends."""
    stalls = round_.log.count("no credits")
    round_.data.offer(payload)
    wait_until(lambda: round_.log.count("no credits") > stalls, DEADLINE, "the log line about missing credits")
    lost = round_.log.lost["not sent"]
    round_.disconnect()
    wait_until(lambda: round_.log.lost_bytes() and round_.log.lost["not sent"] == lost + len(payload), DEADLINE,
               f"the log line about {len(payload)} bytes that were not sent")


def leave(round_, rng):
    """Ends the session. With "stay" the link stays for the next session."""
    match rng.choice(["disconnect", "disconnect", "quit", "vanish", "stay"]):
        case "disconnect":
            round_.disconnect()
        case "quit":
            round_.disconnect()
            round_.quit()
        case "vanish":
            round_.vanish()


# Sessions

def talk(round_, rng):
    if round_.bring_up(round_.world.choose(rng)):
        use(round_, rng)
        if round_.data and not round_.link.over() and rng.random() < 0.3:
            use(round_, rng)
    leave(round_, rng)


def vanish(round_, rng):
    """The client leaves without "quit", while bytes move or while the link is set up."""
    peripheral = round_.world.choose(rng, abandoned=True)
    if rng.random() < 0.3:
        round_.connect(peripheral)
        time.sleep(rng.random() / round_.scale)
    elif round_.bring_up(peripheral):
        round_.data.offer(payload_of(round_, rng))
        if rng.random() < 0.5:
            round_.drop_data()
    round_.vanish()


def slow_reader(round_, rng):
    """The client does not read until the program is held up, then leaves."""
    if round_.bring_up(round_.world.choose(rng, "source")):
        last = -1
        while (now := round_.stats()[0]) != last and now < 400_000:
            last = now
            time.sleep(0.05)
        if rng.random() < 0.5:
            read_source(round_, len(round_.data.come) + 1000)
    leave(round_, rng)


def data_gone(round_, rng):
    """The data client leaves in the middle; the next "connect" works."""
    if round_.bring_up(round_.world.choose(rng, "echo", "source", "sink", "stalled")):
        round_.data.offer(payload_of(round_, rng))
        round_.drop_data()
    if round_.bring_up(round_.world.choose(rng, "echo")):
        use(round_, rng)
    leave(round_, rng)


def unopened(round_, rng):
    """The data pipe is not opened at all, or before the link is up, which may be too early."""
    round_.connect(round_.world.choose(rng))
    early = rng.random() < 0.5 and not round_.link.told()
    if early:
        early = round_.open_early()
    if round_.outcome() and early:
        while round_.data.pull():
            pass
        if not round_.data.ended or round_.open_data():
            use(round_, rng)
    leave(round_, rng)


def twice(round_, rng):
    peripherals = [round_.world.choose(rng, abandoned=True) for _ in range(rng.randint(1, 3))]
    peripherals.append(round_.world.choose(rng, steady=True))
    if rng.random() < 0.3:
        peripherals[0] = peripherals[-1]
    if rng.random() < 0.5:
        round_.connect(*peripherals)
    else:
        for one in peripherals:
            round_.connect(one)
    if round_.outcome() and round_.open_data():
        use(round_, rng)
    leave(round_, rng)


def interrupted_setup(round_, rng):
    for _ in range(rng.randint(1, 3)):
        round_.connect(round_.world.choose(rng, abandoned=True))
        time.sleep(rng.random() / round_.scale)
        round_.disconnect()
        check(not round_.stats()[2], "a link is left after disconnect")
    if rng.random() < 0.3:
        round_.quit()


def handed_over(round_, rng):
    """The client quits; the next one goes on with the link."""
    if round_.bring_up(round_.world.choose(rng, "echo", "sink", steady=True)):
        use(round_, rng)
        round_.quit()
        check(round_.stats()[2], "quit ended the link")
        use(round_, rng)
    leave(round_, rng)


def waiting_client(round_, rng):
    """A second client waits until the first has left."""
    up = round_.bring_up(round_.world.choose(rng, "echo", "sink", steady=True))
    second = round_.new_shell()
    second.send(b"stats\n")
    if up:
        use(round_, rng)
    second.pull()
    check(not second.replies and not second.ended, "a second client was served")
    if rng.random() < 0.5:
        round_.quit()
    else:
        round_.vanish()
    second.reply("stats")
    round_.client = second
    leave(round_, rng)


def garbage(round_, rng):
    shell = round_.shell()
    match rng.choice(["bytes", "nulls", "long", "half", "many"]):
        case "bytes":
            shell.send(rng.randbytes(rng.randint(1, 5000)) + b"\n")
        case "nulls":
            shell.send(bytes(rng.randint(1, 3000)) + b"\r")
        case "long":
            text = rng.choice([b"connect", b"x", b"stats "]) * LONGEST_GARBAGE
            shell.send(text[:rng.randint(LONGEST_LINE + 1, LONGEST_GARBAGE)] + b"\n")
        case "half":
            shell.send(rng.choice([b"conn", b"stats", b"exi", b"disconnect"]))
            round_.vanish()
        case "many":
            count = rng.randint(10, 60)
            shell.send(b"stats\r\n" * count)
            for _ in range(count):
                shell.reply("stats")
    round_.stats()


def malformed_address(round_, rng):
    text = rng.choice(["", "00", "00:11:22:33:44", "00:11:22:33:44:55:66", "00:11:22:33:44:gg", "0011223344556677",
                       "00-11-22-33-44-55", ": : : : :", "00:11:22:33:44:55 x", "-", "\xe4\0\xff", "1" * 5000,
                       "D0:00:00:00:00:01", "%s%n%x"])
    round_.connect(Peripheral("bad address", "none", {"address": text}, {"ERROR TIO"}))
    check(not round_.outcome(), "a link to nothing")
    leave(round_, rng)


def lescan(round_, rng):
    answer = round_.shell().ask(f"lescan {rng.randint(1000, 3000)}")
    known = {f"{one.address.lower()};{one.keys['name']}" for one in round_.world.peripherals}
    found = answer.split(",")
    # A scan in scaled time is so short that a busy machine may miss any of them.
    check(answer == "N/A" or found == sorted(known & set(found)), f"unexpected result of a scan: {answer!r}")
    round_.shell().send(rng.choice([b"lescan\n", b"lescan 999\n", b"lescan -5\n"]))  # not answered
    round_.stats()


def resetbt(round_, rng):
    if up := rng.random() < 0.5 and round_.bring_up(round_.world.choose(rng, steady=True)):
        round_.wait_until_watched()
    if round_.link:  # the session before may have left it
        round_.link.allowed |= OVER
    round_.shell().expect("resetbt", "OK")
    if up and not round_.world.older:
        round_.shell().wait(round_.link.over, "a line about the link that the radio reset dropped")
    leave(round_, rng)


KINDS = {talk: 30, vanish: 8, slow_reader: 4, data_gone: 8, unopened: 8, twice: 8, interrupted_setup: 8, handed_over: 8,
         waiting_client: 6, garbage: 10, malformed_address: 5, lescan: 3, resetbt: 1}
