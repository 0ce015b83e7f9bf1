"""Random simulated worlds for the soak test, and what a client may see in them (from docs/failures.md)."""
from dataclasses import dataclass, field
from pathlib import Path

UP = "CONNECT TIO"
OVER = {"ERROR TIO", "ERROR EXP", "STATUS CLOSED", "TIO DROP"}

ALL = ["TX", "RX", "CRTX", "CRRX", "TXMTU", "RXMTU"]
CLOSED, FAIL = "0x80000013", "0x80004005"
STATUSES = ["unreachable", "protocol-error", "access-denied", f"error:{FAIL}", f"error:{CLOSED}"]
CALL_FAULTS = [*STATUSES, f"throw:{FAIL}", "cancel", "no-operation"]
# Faults of these calls either end the link before any byte moves, or lose no byte untold.
SAFE_POINTS = ["device", "write:RXMTU", "subscribe:TXMTU"]
# Faults of these calls may leave a link that is up but moves no bytes.
CRIPPLING_POINTS = ["characteristics", "subscribe:CRTX", "subscribe:TX", "write:CRRX"]


@dataclass
class Peripheral:
    kind: str
    traffic: str  # echo, source, sink (takes everything), stalled (takes nothing), unsure
    keys: dict
    allowed: set = field(default_factory=lambda: {UP})  # the lines that a client may get
    resets_radio: bool = False  # its failures may cause a radio reset, which would end other links

    @property
    def address(self):
        return self.keys["address"]

    @property
    def steady(self):
        return self.allowed == {UP}


class FailureTable:
    """The tables of docs/failures.md: the lines for each generation, call and action."""

    def __init__(self):
        self.cells = {}
        columns = []
        for row in (Path(__file__).resolve().parent.parent / "docs" / "failures.md").read_text().splitlines():
            fields = [cell.strip() for cell in row.strip("|").split("|")]
            if fields[0] == "generation":
                columns = fields
            elif fields[0] in ("newer", "older"):
                for action, cell in zip(columns[4:], fields[4:]):
                    lines = {line.strip() for line in cell.split(",")} - {"", "none", "waits"}
                    self.cells.setdefault((fields[0], fields[1], action), set()).update(lines)

    def allowed_lines(self, older, faults):
        generation = "older" if older else "newer"
        lines = {UP}
        for fault in faults:
            action = fault["do"].partition(":")[0]
            if fault["do"].endswith(CLOSED):
                action = "closed"
            lines |= self.cells.get((generation, fault["on"], action), set())
            if action == "disconnect":
                lines |= {"TIO DROP"} if older else {"TIO DROP", "STATUS CLOSED"}
        return lines


def repeated_faults(rng, point, actions, step):
    """Many faults at one point, each some calls after the one before."""
    after, faults = 0, []
    for _ in range(60):
        after += rng.randint(*step)
        faults.append({"on": point, "after": after, "times": 1, "do": rng.choice(actions)})
    return faults


def link_pace(rng):
    return {"interval_us": rng.randint(1000, 4000), "packets_per_interval": rng.randint(2, 6)}


def dropping(rng, older):
    # In the older generation nobody is told of a link that drops while the peripheral sends.
    points = ["write:RX", "subscribe:TX"] if older else ["write:RX", "notify:TX", "subscribe:CRTX"]
    point = rng.choice(points)
    return repeated_faults(rng, point, ["disconnect"], (1, 4) if "subscribe" in point else (20, 200))


def refusing_writes(rng):
    # Each refused write costs the host a credit, but the peripheral does not know that it was used. So refused writes
    # are rare, or the host would have no credits left.
    return repeated_faults(rng, "write:RX", CALL_FAULTS, (40, 200))


def pairing(rng, older):
    if not older:
        return {}
    return {"pairing": {"kind": rng.choice([1, 2, 4, 8]), "result": rng.choice([0, 0, 4, 9, 19])}}


def good_peripherals(rng):
    few = rng.randint(1, 8)
    yield "good 20", "echo", {"tx_mtu": 20}
    yield "good 100", "echo", {"tx_mtu": 100}
    yield "good 244", "echo", {"tx_mtu": 244}
    yield "few credits", "echo", {"tx_mtu": 100, "initial_credits": few, "regrant_at": rng.randint(0, few - 1)}
    yield "paced", "echo", {"tx_mtu": 100, "link": link_pace(rng)}
    yield "no MTU", "echo", {"characteristics": [name for name in ALL if name != rng.choice(["TXMTU", "RXMTU"])]}
    yield "source", "source", {"serial": "source:0", "tx_mtu": 100, "link": link_pace(rng)}
    yield "sink", "sink", {"serial": "sink"}
    yield "silent", "sink", {"characteristics": [name for name in ALL if name != rng.choice(["TX", "CRRX"])]}
    yield "stalled", "stalled", rng.choice([{"initial_credits": 0},
                                            {"characteristics": [name for name in ALL if name != "CRTX"]}])
    yield "listed late", "echo", {"appears_after_listing": True, "cached_services": rng.choice([[], ["FEFB"]])}


def faulty_peripherals(rng, older):
    """Each has a kind, its traffic, its keys and its faults."""
    yield "dropping", "echo", {"tx_mtu": 50}, dropping(rng, older)
    yield "refusing writes", "echo", {"tx_mtu": 50}, refusing_writes(rng)
    point = rng.choice(SAFE_POINTS)
    # The newer generation looks a device up a second time, so that some faults come directly one after the other.
    yield f"refusing {point}", "echo", {}, repeated_faults(rng, point, CALL_FAULTS, (0, 2))
    point = rng.choice(CRIPPLING_POINTS)
    yield f"refusing {point}", "unsure", {}, repeated_faults(rng, point, CALL_FAULTS + ["null"], (0, 8))
    yield "refusing services", "unsure", {}, [
        *repeated_faults(rng, "services", CALL_FAULTS + ["disconnect"], (0, 2)),
        *repeated_faults(rng, "services:all", CALL_FAULTS + ["disconnect"], (0, 2))]
    if older:
        yield "refusing pairing", "echo", {"pairing": {"result": 4}}, repeated_faults(rng, "pair", CALL_FAULTS, (0, 2))


class World:
    """About twenty random peripherals of all kinds."""

    def __init__(self, rng, time_scale):
        self.older = rng.random() < 0.25
        self.scale = time_scale
        self.peripherals = []
        table = FailureTable()
        for kind, traffic, keys in good_peripherals(rng):
            self.add(rng, Peripheral(kind, traffic, keys | pairing(rng, self.older)))
        self.add(rng, Peripheral("no RX", "none", {"characteristics": [name for name in ALL if name != "RX"]},
                                 {"ERROR TIO"}))
        self.add(rng, Peripheral("no service", "none", {"services": rng.choice([[], ["180A"]])}, {"ERROR TIO"}, True))
        for kind, traffic, keys, faults in faulty_peripherals(rng, self.older):
            allowed = table.allowed_lines(self.older, faults)
            self.add(rng, Peripheral(kind, traffic, keys | {"faults": faults}, allowed, "services" in kind))

    def add(self, rng, peripheral):
        number = len(self.peripherals)
        peripheral.keys["address"] = f"C0:{rng.getrandbits(8):02X}:{rng.getrandbits(8):02X}:00:00:{number:02X}"
        peripheral.keys["name"] = f"{peripheral.kind} {number}"
        self.peripherals.append(peripheral)

    def document(self):
        return {"os_version": [10, 0, 15062] if self.older else [10, 0, 19041], "time_scale": self.scale,
                "peripherals": [peripheral.keys for peripheral in self.peripherals]}

    def choose(self, rng, *traffic, steady=False, abandoned=False):
        """A random peripheral with one of the kinds of traffic. `steady`: one without faults. `abandoned`: nobody will wait
        for the end of its set-up, so it must not be one that resets the radio."""
        fit = [one for one in self.peripherals
               if (not traffic or one.traffic in traffic) and (one.steady or not steady)
               and not (one.resets_radio and abandoned)]
        # A radio reset takes as long as ten other sessions, so it is rare.
        return rng.choices(fit, [0.4 if one.resets_radio else 1 if one.steady else 2 for one in fit])[0]
