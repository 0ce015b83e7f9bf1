#!/usr/bin/env python3
"""A TIO peripheral on BlueZ's GATT server. It reads commands from standard input, one on a line, and answers each with a line:
  counters          the counters, as JSON
  set NAME VALUE    changes tx_mtu, credits, regrant_at or serial
  acquired          tells whether bluetoothd has acquired the descriptors for writes: yes or no
  drop              ends the link
  vanish            ends the link and the advertising
  appear [NAME]     advertises, under that name"""
import argparse
import dataclasses
import json
import os
import signal
import socket
import sys

import dbus
import dbus.mainloop.glib
import dbus.service
from gi.repository import GLib

from advertiser import Advertiser
from tio import Tio

SERVICE = "0000fefb-0000-1000-8000-00805f9b34fb"
CHARACTERISTICS = {
    "RX": ("00000001-0000-1000-8000-008025000000", "write-without-response"),
    "TX": ("00000002-0000-1000-8000-008025000000", "notify"),
    "CRRX": ("00000003-0000-1000-8000-008025000000", "write"),
    "CRTX": ("00000004-0000-1000-8000-008025000000", "indicate"),
    "RXMTU": ("00000009-0000-1000-8000-008025000000", "write"),
    "TXMTU": ("0000000a-0000-1000-8000-008025000000", "indicate"),
}
GATT, DEVICE = "org.bluez.GattCharacteristic1", "org.bluez.Device1"
PROPERTIES, OBJECTS = dbus.PROPERTIES_IFACE, "org.freedesktop.DBus.ObjectManager"
APPLICATION = "/tio"


class Characteristic(dbus.service.Object):
    """All values pass through sockets, without a D-Bus message for each packet. So do writes with response, because
    bluetoothd crashes when a link ends while it waits for the answer to a WriteValue. A write through a socket cannot be
    refused, so one that breaks a rule of the profile is only counted."""

    def __init__(self, bus, name, tio):
        self.path = f"{APPLICATION}/service/{name}"
        super().__init__(bus, self.path)
        self.name, self.tio, self.socket = name, tio, None
        uuid, flag = CHARACTERISTICS[name]
        self.properties = {"UUID": uuid, "Service": dbus.ObjectPath(f"{APPLICATION}/service"),
                           "Flags": dbus.Array([flag], signature="s")}
        self.properties["NotifyAcquired" if flag in ("notify", "indicate") else "WriteAcquired"] = False
        self.take = {"RX": tio.take_data, "CRRX": tio.take_credits, "RXMTU": tio.take_mtu}.get(name)

    def hand_out(self, options):
        self.close()
        self.socket, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        descriptor = dbus.types.UnixFd(theirs)
        theirs.close()
        return descriptor, dbus.UInt16(options["mtu"])

    def close(self):
        if self.socket:
            self.socket.close()
            self.socket = None

    @dbus.service.method(GATT, in_signature="a{sv}", out_signature="hq")
    def AcquireNotify(self, options):
        answer = self.hand_out(options)
        GLib.io_add_watch(self.socket, GLib.IO_HUP, self.hung_up, self.socket)
        # Only after this call has been answered: bluetoothd drops values of a subscription that it does not know yet.
        GLib.idle_add(lambda: self.tio.subscribe(self.name, self.send))
        return answer

    def send(self, value):
        try:
            self.socket.send(value)
        except OSError:
            pass  # the host has gone

    def hung_up(self, _source, _condition, ended):
        if ended is self.socket:
            self.close()
            self.tio.unsubscribe(self.name)
        return False

    @dbus.service.method(GATT, in_signature="a{sv}", out_signature="hq")
    def AcquireWrite(self, options):
        answer = self.hand_out(options)
        self.socket.setblocking(False)
        GLib.io_add_watch(self.socket, GLib.IO_IN | GLib.IO_HUP, self.readable, self.socket)
        return answer

    def readable(self, _source, condition, ready):
        if ready is not self.socket:
            return False
        self.drain()
        if condition & GLib.IO_HUP:
            self.close()
        return self.socket is not None

    def drain(self):
        try:
            # An empty packet ends this loop like the end of the socket does; the latter is also told by IO_HUP.
            while self.socket and (packet := self.socket.recv(1024)):
                self.take(packet)
        except OSError:
            pass
        self.tio.pump()


class Application(dbus.service.Object):
    def __init__(self, bus, tio):
        super().__init__(bus, APPLICATION)
        self.characteristics = {name: Characteristic(bus, name, tio) for name in CHARACTERISTICS}

    @dbus.service.method(OBJECTS, out_signature="a{oa{sa{sv}}}")
    def GetManagedObjects(self):
        objects = {dbus.ObjectPath(f"{APPLICATION}/service"):
                   {"org.bluez.GattService1": {"UUID": SERVICE, "Primary": True}}}
        for one in self.characteristics.values():
            objects[dbus.ObjectPath(one.path)] = {GATT: one.properties}
        return objects


class Peripheral:
    def __init__(self, options):
        dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
        self.bus = dbus.SystemBus()
        self.name = options.name
        self.tio = Tio()
        self.adapter_path = f"/org/bluez/{options.adapter}"
        self.adapter = self.bus.get_object("org.bluez", self.adapter_path)
        self.application = None if options.no_service else Application(self.bus, self.tio)
        self.advertiser = Advertiser(self.bus, self.adapter)
        self.loop = GLib.MainLoop()

    def run(self):
        self.bus.add_signal_receiver(lambda _, properties, *__, path: self.properties_changed(path, properties), "PropertiesChanged",
                                     PROPERTIES, path_keyword="path", arg0=DEVICE)
        self.bus.add_signal_receiver(lambda path, interfaces: self.properties_changed(path, interfaces.get(DEVICE, {})),
                                     "InterfacesAdded", OBJECTS)
        if self.application:
            self.adapter.RegisterApplication(
                dbus.ObjectPath(APPLICATION), dbus.Dictionary(signature="sv"), dbus_interface="org.bluez.GattManager1",
                reply_handler=self.show, error_handler=lambda error: sys.exit(f"RegisterApplication: {error}"))
        else:
            self.show()
        GLib.io_add_watch(sys.stdin.fileno(), GLib.IO_IN | GLib.IO_HUP, self.command)
        GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, self.loop.quit)
        self.loop.run()

    def show(self):
        self.advertiser.show(self.name, lambda: self.answer("ready"))

    def properties_changed(self, path, properties):
        """Called for changes of a known host, and for a new host: that one appears with "Connected" already set."""
        if not path.startswith(self.adapter_path) or "Connected" not in properties:
            return
        for one in self.writable():
            one.drain()
        self.advertiser.connection_changed(bool(properties["Connected"]))
        if properties["Connected"]:
            self.tio.begin_connection()

    def writable(self):
        return [one for one in self.application.characteristics.values() if one.take] if self.application else []

    def disconnect(self):
        objects = self.bus.get_object("org.bluez", "/").GetManagedObjects(dbus_interface=OBJECTS)
        for path, interfaces in objects.items():
            device = interfaces.get(DEVICE, {})
            if path.startswith(self.adapter_path) and device.get("Connected"):
                self.bus.get_object("org.bluez", path).Disconnect(dbus_interface=DEVICE)

    def answer(self, text):
        print(text, flush=True)

    def command(self, _source, _condition):
        line = os.read(sys.stdin.fileno(), 4096).decode().strip()
        word, _, rest = line.partition(" ")
        if not word:
            self.loop.quit()
        elif word == "counters":
            self.answer(json.dumps(dataclasses.asdict(self.tio.counters)))
        elif word == "set":
            self.tio.configure(*rest.split(" ", 1))
            self.answer("done")
        elif word == "drop":
            self.disconnect()
            self.answer("done")
        elif word == "vanish":
            self.advertiser.hide()
            self.disconnect()
            self.answer("done")
        elif word == "acquired":
            self.answer("yes" if all(one.socket for one in self.writable()) else "no")
        elif word == "appear":
            self.advertiser.show(rest, lambda: self.answer("done"))
        else:
            self.answer(f"unknown command {line}")
        return bool(word)


def main():
    options = argparse.ArgumentParser(description=__doc__)
    options.add_argument("--adapter", default="hci1")
    options.add_argument("--name", default="TIO-LAB", help="the advertised name; empty: none")
    options.add_argument("--no-service", action="store_true", help="advertises the service without having it")
    Peripheral(options.parse_args()).run()


if __name__ == "__main__":
    main()
