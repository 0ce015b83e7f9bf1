#include "platform/runtime.h"

#include "bus.h"
#include "connection.h"
#include "platform/version.h"

namespace platform {

// Without a bus, or without bluetoothd, the program starts all the same and tells its client.
BluetoothRuntime::BluetoothRuntime() {
    bluez::Bus::allow();
}

BluetoothRuntime::~BluetoothRuntime() {
    bluez::Connection::awaitEnds();
    bluez::Bus::closeCurrent();
}

// The first build with the newer GATT generation: BlueZ looks services and characteristics up by UUID and
// tells the state of a connection, as that generation does, and lists nothing for the older one. A constant,
// since a kernel's version says nothing about either.
OsVersion osVersion() {
    return {10, 0, 15063};
}

}  // namespace platform
