// The drivers of the machine's Bluetooth devices.
//
// Threads: any. Nothing here throws; failures are system errors.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/error.h"

namespace platform {

struct DriverInfo {
    std::wstring description;
    std::wstring manufacturer;
    std::wstring provider;
    FileTime date;              // UTC
    std::uint64_t version = 0;  // four 16-bit parts, the most significant first

    bool operator==(const DriverInfo&) const = default;
};

// One present device of the Bluetooth class.
class DriverDevice {
  public:
    virtual ~DriverDevice() = default;
    // Has to come first, once.
    virtual SystemError buildCompatibleDriverList() = 0;
    // noMoreItems behind the last one.
    virtual SystemError compatibleDriver(std::uint32_t index, DriverInfo& out) const = 0;
};

struct DriverDeviceList {
    std::vector<std::shared_ptr<DriverDevice>> devices;
    SystemError error = SystemError::none;
};

DriverDeviceList bluetoothDriverDevices();

// Where the reference file of known drivers is looked for; it need not exist.
std::filesystem::path driversDbPath();

}  // namespace platform
