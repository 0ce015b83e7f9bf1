// Adds devices to the Wine prefix and removes them again: radios behind a kernel driver, and a device of the
// Bluetooth class with several matching drivers.
//
// Threads: one. The constructors throw std::runtime_error when Wine refuses something.
#pragma once

#include <windows.h>

#include <setupapi.h>

#include <array>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "tests/wine_devices/test_radio.h"

namespace wine_devices {

// Loads the radio driver and unloads it at its end. Only one may exist at a time.
class RadioDriver {
  public:
    RadioDriver();
    ~RadioDriver();
    RadioDriver(const RadioDriver&) = delete;
    RadioDriver& operator=(const RadioDriver&) = delete;

    // Replaces the radios; all commands that they got are forgotten.
    void setUp(std::vector<RadioSetup> radios) const;
    std::array<RadioReport, kMaxRadios> reports() const;

  private:
    SC_HANDLE manager_;
    SC_HANDLE service_;
    HANDLE control_;
};

struct DriverPackage {
    std::string description;
    std::string manufacturer;
    std::string provider;
    SYSTEMTIME date;                  // year, month and day
    std::array<unsigned, 4> version;  // the most significant part first
};

// A device of the Bluetooth class with these matching drivers, each with a set-up file (.inf) of its own.
// Only one may exist at a time.
class BluetoothDevice {
  public:
    explicit BluetoothDevice(std::span<const DriverPackage> packages);
    ~BluetoothDevice();
    BluetoothDevice(const BluetoothDevice&) = delete;
    BluetoothDevice& operator=(const BluetoothDevice&) = delete;

  private:
    std::vector<std::filesystem::path> setupFiles_;
    HDEVINFO set_;
    SP_DEVINFO_DATA device_{sizeof device_, {}, 0, 0};
};

}  // namespace wine_devices
