"""Advertises the TIO service on BlueZ, as long as no host is connected."""
import sys

import dbus
import dbus.service
from gi.repository import GLib

INTERFACE, MANAGER = "org.bluez.LEAdvertisement1", "org.bluez.LEAdvertisingManager1"
# A virtual controller reports an advertisement only once, when it starts. Two equal advertisements take turns every second, so
# that one of them starts every second and whoever scans hears the peripheral again and again.
PATHS = "/tio_advertisement0", "/tio_advertisement1"
# The pause after a link, before the peripheral advertises again. A host that connects again at once may find its own kernel
# still clearing the old link away, and then waits for ever. Over a real radio nobody is that fast.
PAUSE_MS = 1000
RETRY_MS = 300


class Advertisement(dbus.service.Object):
    name = ""

    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature="s", out_signature="a{sv}")
    def GetAll(self, _interface):
        # The appearance makes bluetoothd send a scan response also without a name. Without a scan response the virtual
        # controller would send the previous one, which has a name.
        return {"Type": "peripheral", "ServiceUUIDs": dbus.Array(["fefb"], signature="s"), "Discoverable": True,
                "Duration": dbus.UInt16(1), "Appearance": dbus.UInt16(0x80)} | ({"LocalName": self.name} if self.name else {})

    @dbus.service.method(INTERFACE)
    def Release(self):
        pass


class Advertiser:
    def __init__(self, bus, adapter):
        self.manager = dbus.Interface(adapter, MANAGER)
        self.advertisements = [Advertisement(bus, path) for path in PATHS]
        self.visible = self.connected = self.on_air = False

    def show(self, name, done):
        for one in self.advertisements:
            one.name = name
        self.visible = True
        self.update(done)

    def hide(self):
        self.visible = False
        self.update()

    def connection_changed(self, connected):
        self.connected = connected
        GLib.timeout_add(0 if connected else PAUSE_MS, self.update)

    def update(self, done=lambda: None):
        wanted = self.visible and not self.connected
        if wanted and not self.on_air:
            self.register(done)
        elif self.on_air and not wanted:
            self.unregister()
        self.on_air = wanted
        return False

    def register(self, done):
        def failed(error):
            # bluetoothd refuses while a link comes up or ends at the same moment. Once for both advertisements.
            # A bluetoothd that has ended advertises nothing any more.
            if not self.on_air or error.get_dbus_name() == "org.freedesktop.DBus.Error.ServiceUnknown":
                return
            print(f"RegisterAdvertisement: {error}; it is tried again", file=sys.stderr)
            self.unregister()
            self.on_air = False
            GLib.timeout_add(RETRY_MS, self.update, done)

        for path in PATHS:
            self.manager.RegisterAdvertisement(dbus.ObjectPath(path), dbus.Dictionary(signature="sv"),
                                               reply_handler=done if path == PATHS[-1] else lambda: None,
                                               error_handler=failed)

    def unregister(self):
        for path in PATHS:
            try:
                self.manager.UnregisterAdvertisement(dbus.ObjectPath(path))
            except dbus.DBusException:
                pass  # the adapter is gone, and the advertisement with it
