"""What the lab's tests share: the machine's adapters and bluetoothd, the peripheral and the program as children."""
import contextlib
import json
import os
import shutil
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path

import dbus

HERE = Path(__file__).parent
sys.path.insert(0, str(HERE.parents[1] / "tools"))
from bridge_client import Deviation, Program, check, open_pipe, wait_until  # noqa: E402

HOST, PERIPHERAL = "/org/bluez/hci0", "/org/bluez/hci1"
ADDRESS = "00:AA:01:01:00:01"  # of hci1
# No data, no credits, the MTU that holds anyway.
FIRST_VALUES = {f"{number:08x}-0000-1000-8000-008025000000": value for number, value in ((1, []), (3, [0]), (9, [20, 0]))}
BLUETOOTHD, BTVIRT = ["/usr/libexec/bluetooth/bluetoothd", "-n", "-E"], ["btvirt", "-L", "-l2"]
ONE_ADAPTER = ["btvirt", "-L", "-l1"]
USER = "tester"
TROUBLES = "STATUS CLOSED", "TIO DROP", "ERROR EXP"
DEADLINE = 60
ANSWER_DEADLINE = 180  # a link that does not come up resets all radios, one after the other


def proxy(path, interface):
    return dbus.Interface(dbus.SystemBus().get_object("org.bluez", path, introspect=False), interface)


def objects():
    try:
        return proxy("/", "org.freedesktop.DBus.ObjectManager").GetManagedObjects()
    except dbus.DBusException:
        return {}  # bluetoothd is not there


def powered(adapter):
    return bool(objects().get(adapter, {}).get("org.bluez.Adapter1", {}).get("Powered"))


def power(on, *adapters):
    for adapter in adapters:
        proxy(adapter, dbus.PROPERTIES_IFACE).Set("org.bluez.Adapter1", "Powered", dbus.Boolean(on, variant_level=1))
        wait_until(lambda: powered(adapter) == on, DEADLINE, f"power {on} of {adapter}")


def connected():
    return [path for path, interfaces in objects().items() if interfaces.get("org.bluez.Device1", {}).get("Connected")]


def forget_devices():
    """As if they had never been met. Links end first: bluetoothd does not survive the removal of every connected device."""
    for path in connected():
        proxy(path, "org.bluez.Device1").Disconnect()
    wait_until(lambda: not connected(), DEADLINE, "the end of all links")
    for path, interfaces in objects().items():
        if "org.bluez.Device1" in interfaces:
            proxy(os.path.dirname(path), "org.bluez.Adapter1").RemoveDevice(dbus.ObjectPath(path))
    for names in Path("/var/lib/bluetooth").glob("*/cache/*"):
        names.unlink()


def end(command, how=signal.SIGKILL):
    """Ends the machine's own daemon, whoever started it."""
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if (process / "cmdline").read_text().startswith(command[0] + "\0"):
                os.kill(int(process.name), how)
                wait_until(lambda: not (process / "cmdline").exists() or not (process / "cmdline").read_text(), DEADLINE,
                           f"the end of {command[0]}")
        except OSError:
            pass


def start(command):
    with open(f"/tmp/{Path(command[0]).name}.log", "a") as log:
        subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log)


def restart():
    """A world as after the machine's start."""
    end(BLUETOOTHD)
    end(BTVIRT)
    start(BLUETOOTHD)
    wait_until(objects, DEADLINE, "the start of bluetoothd")
    start(BTVIRT)
    wait_for_adapters()


def wait_for_adapters():
    wait_until(lambda: powered(HOST) and powered(PERIPHERAL), DEADLINE, "two adapters that are on")


class Peripheral:
    """tests/lab/peripheral, primed."""

    def __init__(self, *options):
        self.process = subprocess.Popen([sys.executable, HERE / "peripheral", *options], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        check(self.process.stdout.readline() == "ready\n", "the peripheral did not start")
        if "--no-service" not in options:
            self.prime()

    def ask(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        return self.process.stdout.readline().strip()

    def do(self, line):
        answer = self.ask(line)
        check(answer == "done", f"the peripheral answered {answer!r} to {line!r}")

    def configure(self, tx_mtu=244, credits=32, regrant_at=8, serial="echo"):
        for name, value in locals().items():
            if name != "self":
                self.do(f"set {name} {value}")

    def counters(self):
        return json.loads(self.ask("counters"))

    def kill(self):
        self.process.kill()
        self.process.wait()

    def close(self):
        self.process.stdin.close()
        self.process.wait(DEADLINE)

    def prime(self):
        """bluetoothd acquires the peripheral's descriptor for a characteristic with the first value that is written to it,
        and reads that value only when it has the descriptor: the next one from the host may have taken its place by then.
        So these first ones are written alone, and mean nothing."""
        forget_devices()  # among them one whose link is about to end
        device = f"{HOST}/dev_{ADDRESS.replace(':', '_')}"
        adapter = proxy(HOST, "org.bluez.Adapter1")
        adapter.SetDiscoveryFilter(dbus.Dictionary({"Transport": "le"}, signature="sv"))
        adapter.StartDiscovery()
        wait_until(lambda: device in objects(), DEADLINE, "finding the peripheral")
        adapter.StopDiscovery()
        proxy(device, "org.bluez.Device1").Connect(timeout=DEADLINE)
        wait_until(lambda: objects()[device]["org.bluez.Device1"]["ServicesResolved"], DEADLINE, "finding its services")
        for path, interfaces in objects().items():
            value = FIRST_VALUES.get(interfaces.get("org.bluez.GattCharacteristic1", {}).get("UUID"))
            if value is not None and path.startswith(device):
                kind = "request" if value else "command"
                proxy(path, "org.bluez.GattCharacteristic1").WriteValue(dbus.Array(value, signature="y"),
                                                                        dbus.Dictionary({"type": kind}, signature="sv"))
        wait_until(lambda: self.ask("acquired") == "yes", DEADLINE, "acquiring the descriptors")
        forget_devices()


def start_program(executable, folder):
    shutil.chown(folder, USER)
    return Program(executable, folder, user=USER, group=USER, extra_groups=[])


class Bridge:
    """The program under test, run by a user without privileges, with a client on its command pipe."""

    def __init__(self, executable, folder):
        self.program = start_program(executable, folder)
        self.program.wait_until_serving()
        self.shell = open_pipe(self.program.command)
        self.shell.settimeout(ANSWER_DEADLINE)
        self.lines = self.shell.makefile("r", encoding="latin-1", newline="\n")

    def send(self, line):
        self.shell.sendall(line.encode() + b"\n")

    def receive(self):
        return self.lines.readline().rstrip("\r\n")

    def ask(self, line, *expected):
        self.send(line)
        for text in expected:
            answer = self.receive()
            check(answer == text, f"{text!r} was expected upon {line!r}, not {answer!r}")

    def connect(self):
        self.ask(f"connect {ADDRESS}", "OK", "CONNECT TIO")
        return open_pipe(self.program.data)

    def lost(self, data):
        """The client is told. By one line or by two depends on what was on its way, and the second may come late; the data
        pipe ends at the latest with the next command."""
        told = self.receive()
        check(told in TROUBLES, f"the client was told {told!r}")
        for command, last in ("disconnect", "OK"), ("stats", "RX "):
            self.send(command)
            while not (answer := self.receive()).startswith(last):
                check(answer in TROUBLES, f"the client was told {answer!r}")
        with contextlib.suppress(ConnectionError):
            while data.recv(65536):
                pass
        data.close()

    def disconnect(self, data):
        self.ask("disconnect", "OK")
        check(data.recv(1) == b"", "the data pipe is still open after disconnect")
        data.close()

    def stats(self):
        self.send("stats")
        return self.receive()

    def exit(self):
        self.send("exit")
        code = self.program.process.wait(DEADLINE)
        check(code == 0, f"the program ended with exit code {code}")


class Transfer:
    """Bytes into the data pipe and out of it, both at once."""

    def __init__(self, data, sent, count):
        self.data, self.sent, self.count = data, sent, count
        self.received = bytearray()
        self.threads = [threading.Thread(target=work, daemon=True) for work in (self.send, self.receive)]
        for thread in self.threads:
            thread.start()

    def send(self):
        try:
            self.data.sendall(self.sent)
        except OSError:
            pass  # the end of the link closes the pipe

    def receive(self):
        try:
            while len(self.received) < self.count and (piece := self.data.recv(65536)):
                self.received += piece
        except OSError:
            pass

    def wait(self, seconds):
        end = time.monotonic() + seconds
        for thread in self.threads:
            thread.join(max(0, end - time.monotonic()))
        check(not any(thread.is_alive() for thread in self.threads), f"{len(self.received)} of {self.count} bytes came back")
        return bytes(self.received)


def echo(data, count, seconds=120):
    sent = os.urandom(count)
    received = Transfer(data, sent, count).wait(seconds)
    check(received == sent, f"the echo differs: {len(received)} bytes came back for {count}")
