"""The peripheral's side of the TIO profile: credits, MTU and the serial bytes, without any Bluetooth."""
import dataclasses
from collections import deque

DEFAULT_MTU = 20
ECHO_ROOM = 1 << 20
LARGEST_GRANT = 255
PERIOD = 251 * 256
PATTERN = bytes((i + i // 251) & 0xFF for i in range(PERIOD)) * 2


@dataclasses.dataclass
class Counters:
    """Since the start, over all connections. "In" is what the peripheral received."""
    bytes_in: int = 0
    bytes_out: int = 0
    granted: int = 0  # to the host
    used: int = 0
    host_granted: int = 0  # by the host
    host_used: int = 0
    violations: int = 0
    connections: int = 0


def source_bytes(first, count):
    """A pattern in which any loss, swap or repetition shows. It is cut out of a table, because computing it would be slow
    enough to hold up a measurement."""
    first %= PERIOD
    return PATTERN[first:first + count]


class Tio:
    def __init__(self):
        self.settings = {"tx_mtu": 244, "credits": 32, "regrant_at": 8}
        self.serial, self.source_size = "echo", 0
        self.counters = Counters()
        self.begin_connection()
        self.counters.connections = 0

    def configure(self, name, value):
        """With credits 0 the host never gets any. serial is echo, sink or source:BYTES (0 bytes: without end). A new value
        of serial takes effect at once, any other one with the next connection."""
        if name == "serial":
            self.serial, _, size = value.partition(":")
            self.source_size = int(size or 0)
            self.pump()
        else:
            self.settings[name] = int(value)

    def begin_connection(self):
        self.counters.connections += 1
        self.send = {}  # by characteristic: takes bytes to the host that has subscribed
        self.host_mtu = self.own_mtu = DEFAULT_MTU
        self.tx_mtu, self.credits, self.regrant_at = self.settings.values()
        self.begin_session()

    def begin_session(self):
        self.host_credits = self.own_credits = 0
        self.echo, self.waiting, self.produced = deque(), 0, 0

    def subscribe(self, name, send):
        # A host that subscribes to credits again on the same connection begins a new session.
        if name == "CRTX" and name in self.send:
            self.begin_session()
        self.send[name] = send
        if name == "TXMTU":
            # The host may have cut a packet before it learned of a smaller MTU, so the largest MTU announced is the limit.
            self.host_mtu = max(self.host_mtu, self.tx_mtu)
            send(self.tx_mtu.to_bytes(2, "little"))
        self.pump()

    def unsubscribe(self, name):
        self.send[name] = None  # the key stays: it tells that the host has been subscribed before

    def take_data(self, packet):
        if not self.host_credits or len(packet) > self.host_mtu:
            self.counters.violations += 1
            return
        self.host_credits -= 1
        self.counters.used += 1
        self.counters.bytes_in += len(packet)
        if self.serial == "echo" and packet:
            self.echo.append(packet)
            self.waiting += len(packet)

    def take_credits(self, value):
        if len(value) != 1:
            self.counters.violations += 1
            return
        self.own_credits += value[0]
        self.counters.host_granted += value[0]

    def take_mtu(self, value):
        mtu = int.from_bytes(value, "little")
        if len(value) != 2 or not mtu:
            self.counters.violations += 1
            return
        self.own_mtu = mtu

    def pump(self):
        """Sends what may be sent now, then tells the host how much it may send."""
        send = self.send.get("TX")
        while send and self.own_credits and (packet := self.next_packet()):
            self.own_credits -= 1
            self.counters.host_used += 1
            self.counters.bytes_out += len(packet)
            send(packet)
        self.regrant()

    def next_packet(self):
        if self.serial == "source":
            size = min(self.own_mtu, self.source_size - self.produced) if self.source_size else self.own_mtu
            self.produced += size
            return source_bytes(self.produced - size, size)
        if not self.echo:
            return b""
        packet = self.echo.popleft()
        if len(packet) > self.own_mtu:
            self.echo.appendleft(packet[self.own_mtu:])
            packet = packet[:self.own_mtu]
        self.waiting -= len(packet)
        return packet

    def regrant(self):
        send = self.send.get("CRTX")
        if not send or self.host_credits > self.regrant_at or self.waiting >= ECHO_ROOM:
            return
        while self.host_credits < self.credits:
            grant = min(self.credits - self.host_credits, LARGEST_GRANT)
            self.host_credits += grant
            self.counters.granted += grant
            send(bytes([grant]))
