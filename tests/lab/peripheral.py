#!/usr/bin/env python3
"""A TIO peripheral on BlueZ's GATT server. Commands arrive on standard input, a line each, and are answered with a line:
counters; set NAME VALUE (tx_mtu, credits, regrant_at or serial); acquired (the descriptor for data?); drop (the link); vanish
(drop, and advertise no more); appear [NAME]."""
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

from tio import Refused, Tio

SERVICE = "0000fefb-0000-1000-8000-00805f9b34fb"
CHARACTERISTICS = {
    "RX": ("00000001-0000-1000-8000-008025000000", "write-without-response"),
    "TX": ("00000002-0000-1000-8000-008025000000", "notify"),
    "CRRX": ("00000003-0000-1000-8000-008025000000", "write"),
    "CRTX": ("00000004-0000-1000-8000-008025000000", "indicate"),
    "RXMTU": ("00000009-0000-1000-8000-008025000000", "write"),
    "TXMTU": ("0000000a-0000-1000-8000-008025000000", "indicate"),
}
GATT, ADVERTISEMENT, DEVICE = "org.bluez.GattCharacteristic1", "org.bluez.LEAdvertisement1", "org.bluez.Device1"
PROPERTIES, OBJECTS = dbus.PROPERTIES_IFACE, "org.freedesktop.DBus.ObjectManager"
APPLICATION = "/tio"
# The virtual controllers are heard once, whenever advertising starts: two advertisements, the same in both, that take turns
# each second are heard for as long as somebody listens.
ADVERTS = "/tio_advertisement0", "/tio_advertisement1"


class InvalidValue(dbus.DBusException):
    _dbus_error_name = "org.bluez.Error.InvalidValueLength"


class Characteristic(dbus.service.Object):
    """Data, credits and MTU to the host, and data from it, pass through sockets: no D-Bus message for a packet."""

    def __init__(self, bus, name, tio):
        self.path = f"{APPLICATION}/service/{name}"
        super().__init__(bus, self.path)
        self.name, self.tio, self.socket = name, tio, None
        uuid, flag = CHARACTERISTICS[name]
        self.properties = {"UUID": uuid, "Service": dbus.ObjectPath(f"{APPLICATION}/service"),
                           "Flags": dbus.Array([flag], signature="s")}
        if flag in ("notify", "indicate"):
            self.properties["NotifyAcquired"] = False
        if flag == "write-without-response":
            self.properties["WriteAcquired"] = False

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
        # After the answer, so that bluetoothd knows of the subscription whose first value it gets.
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
            # An empty packet and the end look the same; the end also comes with a hang-up.
            while self.socket and (packet := self.socket.recv(1024)):
                try:
                    self.tio.take_data(packet)
                except Refused:
                    pass  # there is no answer to a write without response; it is counted
        except OSError:
            pass
        self.tio.pump()

    @dbus.service.method(GATT, in_signature="aya{sv}")
    def WriteValue(self, value, _options):
        try:
            (self.tio.take_credits if self.name == "CRRX" else self.tio.take_mtu)(bytes(value))
        except Refused:
            raise InvalidValue("refused")


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


class Advertisement(dbus.service.Object):
    @dbus.service.method(PROPERTIES, in_signature="s", out_signature="a{sv}")
    def GetAll(self, _interface):
        # Without an appearance a nameless peripheral would send no scan response, and the virtual controller the last one.
        return {"Type": "peripheral", "ServiceUUIDs": dbus.Array(["fefb"], signature="s"), "Discoverable": True,
                "Duration": dbus.UInt16(1), "Appearance": dbus.UInt16(0x80)} | ({"LocalName": self.name} if self.name else {})

    @dbus.service.method(ADVERTISEMENT)
    def Release(self):
        pass


class Peripheral:
    def __init__(self, options):
        dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
        self.bus = dbus.SystemBus()
        self.options = options
        self.tio = Tio()
        self.adapter_path = f"/org/bluez/{options.adapter}"
        self.adapter = self.bus.get_object("org.bluez", self.adapter_path)
        self.application = None if options.no_service else Application(self.bus, self.tio)
        self.advertisements = [Advertisement(self.bus, path) for path in ADVERTS]
        self.loop = GLib.MainLoop()

    def call(self, interface, method, *arguments, done):
        self.adapter.get_dbus_method(method, interface)(
            *arguments, reply_handler=lambda *_: done(), error_handler=lambda error: sys.exit(f"{method}: {error}"))

    def run(self):
        self.bus.add_signal_receiver(lambda _, properties, *__, path: self.noticed(path, properties), "PropertiesChanged",
                                     PROPERTIES, path_keyword="path", arg0=DEVICE)
        self.bus.add_signal_receiver(lambda path, interfaces: self.noticed(path, interfaces.get(DEVICE, {})),
                                     "InterfacesAdded", OBJECTS)
        if self.application:
            self.call("org.bluez.GattManager1", "RegisterApplication", dbus.ObjectPath(APPLICATION),
                      dbus.Dictionary(signature="sv"), done=self.advertise_first)
        else:
            self.advertise_first()
        GLib.io_add_watch(sys.stdin.fileno(), GLib.IO_IN | GLib.IO_HUP, self.command)
        GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, signal.SIGTERM, self.loop.quit)
        self.loop.run()

    def advertise_first(self):
        self.advertise(self.options.name, lambda: self.answer("ready"))

    def advertise(self, name, done):
        for path, advertisement in zip(ADVERTS, self.advertisements):
            advertisement.name = name
            last = path == ADVERTS[-1]
            self.call("org.bluez.LEAdvertisingManager1", "RegisterAdvertisement", dbus.ObjectPath(path),
                      dbus.Dictionary(signature="sv"), done=done if last else lambda: None)

    # A host that was never seen before appears connected.
    def noticed(self, path, properties):
        if not path.startswith(self.adapter_path) or "Connected" not in properties:
            return
        if self.application:
            self.application.characteristics["RX"].drain()
        if properties["Connected"]:
            self.tio.begin_connection()

    def vanish(self):
        for path in ADVERTS:
            self.adapter.UnregisterAdvertisement(dbus.ObjectPath(path),
                                                 dbus_interface="org.bluez.LEAdvertisingManager1")
        self.disconnect()

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
            self.vanish()
            self.answer("done")
        elif word == "acquired":
            self.answer("yes" if self.application.characteristics["RX"].socket else "no")
        elif word == "appear":
            self.advertise(rest, lambda: self.answer("done"))
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
