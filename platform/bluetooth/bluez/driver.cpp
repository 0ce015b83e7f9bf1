// The kernel brings the drivers of its Bluetooth devices: none to list, none to compare.
#include "platform/driver.h"

#include "platform/runtime.h"

namespace platform {

DriverDeviceList bluetoothDriverDevices() {
    return {};
}

std::filesystem::path driversDbPath() {
    return executableDirectory() / "drivers.db";
}

}  // namespace platform
