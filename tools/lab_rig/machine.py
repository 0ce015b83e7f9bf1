"""The lab's machine: its two adapters, bluetoothd and the virtual controllers. Runs in the lab."""
import os
import shutil
import signal
import subprocess
from pathlib import Path

import dbus

from bridge_client import wait_until

HOST_ADAPTER, PERIPHERAL_ADAPTER = "/org/bluez/hci0", "/org/bluez/hci1"
PERIPHERAL_ADDRESS = "00:AA:01:01:00:01"
USER = "tester"  # has no privileges, and the bus does not let him touch the peripheral's adapter
BLUETOOTHD = ["/usr/libexec/bluetooth/bluetoothd", "-n", "-E"]
TWO_CONTROLLERS, ONE_CONTROLLER = ["btvirt", "-L", "-l2"], ["btvirt", "-L", "-l1"]
DEADLINE = 60  # seconds


def interface_of(path, interface):
    return dbus.Interface(dbus.SystemBus().get_object("org.bluez", path, introspect=False), interface)


def objects():
    """Everything that bluetoothd has, by path; empty while bluetoothd does not run."""
    try:
        return interface_of("/", "org.freedesktop.DBus.ObjectManager").GetManagedObjects()
    except dbus.DBusException:
        return {}


def powered(adapter):
    return bool(objects().get(adapter, {}).get("org.bluez.Adapter1", {}).get("Powered"))


def power(on, *adapters):
    for adapter in adapters:
        properties = interface_of(adapter, dbus.PROPERTIES_IFACE)
        properties.Set("org.bluez.Adapter1", "Powered", dbus.Boolean(on, variant_level=1))
        wait_until(lambda: powered(adapter) == on, DEADLINE, f"power {on} of {adapter}")


def wait_for_adapters():
    wait_until(lambda: powered(HOST_ADAPTER) and powered(PERIPHERAL_ADAPTER), DEADLINE, "two adapters that are on")


def connected_devices():
    return [path for path, interfaces in objects().items() if interfaces.get("org.bluez.Device1", {}).get("Connected")]


def forget_device(path):
    try:
        interface_of(os.path.dirname(path), "org.bluez.Adapter1").RemoveDevice(dbus.ObjectPath(path))
    except dbus.DBusException as error:
        # bluetoothd removes a device by itself some time after its link has ended.
        if error.get_dbus_name() not in ("org.bluez.Error.DoesNotExist", "org.freedesktop.DBus.Error.UnknownObject"):
            raise


def forget_devices():
    """Makes bluetoothd forget every device. It ends their links first: bluetoothd crashes when all its connected devices
    are removed."""
    for path in connected_devices():
        interface_of(path, "org.bluez.Device1").Disconnect()
    wait_until(lambda: not connected_devices(), DEADLINE, "the end of all links")
    for path, interfaces in objects().items():
        if "org.bluez.Device1" in interfaces:
            forget_device(path)
    for names in Path("/var/lib/bluetooth").glob("*/cache/*"):
        names.unlink()


def as_tester(*folders):
    """How a child process is started as that user, who gets the folders."""
    for folder in folders:
        shutil.chown(folder, USER)
    return {"user": USER, "group": USER, "extra_groups": []}


def start_daemon(command):
    with open(f"/tmp/{Path(command[0]).name}.log", "a") as log:
        subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log)


def end_daemon(command, how=signal.SIGKILL):
    """Ends the daemon, whether the init script or this module has started it."""
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if (process / "cmdline").read_text().startswith(command[0] + "\0"):
                os.kill(int(process.name), how)
                # A process that has ended and was not waited for yet has an empty command line.
                wait_until(lambda: not (process / "cmdline").exists() or not (process / "cmdline").read_text(), DEADLINE,
                           f"the end of {command[0]}")
        except OSError:
            pass  # another process, which ended meanwhile


def end_controllers():
    end_daemon(TWO_CONTROLLERS)
    wait_until(lambda: objects().keys().isdisjoint({HOST_ADAPTER, PERIPHERAL_ADAPTER}), DEADLINE, "the adapters' end")


def plug_in():
    start_daemon(TWO_CONTROLLERS)
    wait_for_adapters()


def start_bluetoothd():
    start_daemon(BLUETOOTHD)
    wait_for_adapters()


def restart():
    """Starts bluetoothd and the controllers anew."""
    end_daemon(BLUETOOTHD)
    end_daemon(TWO_CONTROLLERS)
    start_daemon(BLUETOOTHD)
    wait_until(objects, DEADLINE, "the start of bluetoothd")
    plug_in()
