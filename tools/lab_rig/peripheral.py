"""The TIO peripheral of the lab as a child process. Runs in the lab."""
import json
import subprocess
import sys
from pathlib import Path

import dbus

from bridge_client import Account, check, wait_until
from lab_rig import machine
from lab_rig.machine import DEADLINE, HOST_ADAPTER, PERIPHERAL_ADDRESS, forget_devices, interface_of, objects

# What is written first to each characteristic: no data, no credits, the MTU that holds without being written.
FIRST_VALUES = {f"{number:08x}-0000-1000-8000-008025000000": value for number, value in ((1, []), (3, [0]), (9, [20, 0]))}


class Peripheral:
    """Runs lab_rig/tio_peripheral. When it is made, bluetoothd has acquired all its descriptors."""

    def __init__(self, *options):
        program = Path(__file__).parent / "tio_peripheral"
        self.process = subprocess.Popen([sys.executable, program, *options], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        check(self.process.stdout.readline() == "ready\n", "the peripheral did not start")
        if "--no-service" not in options:
            self.write_first_values()

    def ask(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        return self.process.stdout.readline().strip()

    def do(self, line):
        answer = self.ask(line)
        check(answer == "done", f"the peripheral answered {answer!r} to {line!r}")

    def configure(self, tx_mtu=244, credits=32, regrant_at=8, serial="echo"):
        settings = {"tx_mtu": tx_mtu, "credits": credits, "regrant_at": regrant_at, "serial": serial}
        for name, value in settings.items():
            self.do(f"set {name} {value}")

    def counters(self):
        return json.loads(self.ask("counters"))

    def kill(self):
        self.process.kill()
        self.process.wait()

    def close(self):
        self.process.stdin.close()
        self.process.wait(DEADLINE)

    def write_first_values(self):
        """Writes a value without meaning to each characteristic that a host writes. bluetoothd acquires the peripheral's
        descriptor at the first write, and hands that value over only when it has the descriptor; a second value that
        arrives meanwhile takes the first one's place. So each first value is written alone, before a test begins."""
        forget_devices()  # one whose link is about to end may be among them
        device = f"{HOST_ADAPTER}/dev_{PERIPHERAL_ADDRESS.replace(':', '_')}"
        adapter = interface_of(HOST_ADAPTER, "org.bluez.Adapter1")
        adapter.SetDiscoveryFilter(dbus.Dictionary({"Transport": "le"}, signature="sv"))
        adapter.StartDiscovery()
        wait_until(lambda: device in objects(), DEADLINE, "finding the peripheral")
        adapter.StopDiscovery()
        interface_of(device, "org.bluez.Device1").Connect(timeout=DEADLINE)
        wait_until(lambda: objects()[device]["org.bluez.Device1"]["ServicesResolved"], DEADLINE, "finding its services")
        for path, interfaces in objects().items():
            value = FIRST_VALUES.get(interfaces.get("org.bluez.GattCharacteristic1", {}).get("UUID"))
            if value is not None and path.startswith(device):
                characteristic = interface_of(path, "org.bluez.GattCharacteristic1")
                options = {"type": "request" if value else "command"}
                characteristic.WriteValue(dbus.Array(value, signature="y"), dbus.Dictionary(options, signature="sv"))
        wait_until(lambda: self.ask("acquired") == "yes", DEADLINE, "acquiring the descriptors")
        forget_devices()


class Lab:
    """The peripheral in the lab, which outlives a test, and what happens to the machine under it."""

    def __init__(self):
        self.peripheral = None

    def configure(self, no_service=False, initial_credits=32, **settings):
        if no_service or not self.peripheral:
            self.stop()
            self.peripheral = Peripheral(*["--no-service"] * no_service)
        self.peripheral.configure(credits=initial_credits, **settings)
        self.before = self.peripheral.counters()

    def account(self):
        """What has been counted since the configuration."""
        now = self.peripheral.counters()
        return Account(**{name: now[name] - self.before[name] for name in Account._fields})

    def stop(self):
        if self.peripheral:
            self.peripheral.close()
            self.peripheral = None
        forget_devices()

    def start_anew(self):
        if self.peripheral:
            self.kill()
        machine.restart()

    def unplug(self):
        machine.end_daemon(machine.TWO_CONTROLLERS)
        self.kill()

    def restart_bluetoothd(self, how):
        machine.end_daemon(machine.BLUETOOTHD, how)
        self.kill()
        machine.start_daemon(machine.BLUETOOTHD)

    def kill(self):
        self.peripheral.kill()
        self.peripheral = None


lab = Lab()
