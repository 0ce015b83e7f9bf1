#include "platform/driver.h"

#include <windows.h>

#include <setupapi.h>

#include <utility>

#include "platform/runtime.h"

namespace platform {

namespace {

// The set-up class of Bluetooth devices.
constexpr GUID kBluetoothClass = {
    0xE0CBF06C, 0xCD8B, 0x4647, {0xBB, 0x8A, 0x26, 0x3B, 0x43, 0xF0, 0xF9, 0x74}};

static_assert(sizeof(SP_DRVINFO_DATA_V2_W) == 1568);

using DeviceSet = std::shared_ptr<void>;

class WindowsDriverDevice final : public DriverDevice {
  public:
    WindowsDriverDevice(DeviceSet set, const SP_DEVINFO_DATA& device)
        : set_(std::move(set)), device_(device) {}

    SystemError buildCompatibleDriverList() override {
        const BOOL built = ::SetupDiBuildDriverInfoList(set_.get(), &device_, SPDIT_COMPATDRIVER);
        return built ? SystemError::none : lastSystemError();
    }

    SystemError compatibleDriver(std::uint32_t index, DriverInfo& out) const override {
        SP_DRVINFO_DATA_V2_W driver{};
        driver.cbSize = sizeof driver;
        SP_DEVINFO_DATA device = device_;
        if (!::SetupDiEnumDriverInfoW(set_.get(), &device, SPDIT_COMPATDRIVER, index, &driver)) {
            return lastSystemError();
        }
        out.description = driver.Description;
        out.manufacturer = driver.MfgName;
        out.provider = driver.ProviderName;
        out.date.ticks = static_cast<std::uint64_t>(driver.DriverDate.dwHighDateTime) << 32 |
                         driver.DriverDate.dwLowDateTime;
        out.version = driver.DriverVersion;
        return SystemError::none;
    }

  private:
    const DeviceSet set_;  // lives as long as its last device
    SP_DEVINFO_DATA device_;
};

}  // namespace

DriverDeviceList bluetoothDriverDevices() {
    DriverDeviceList list;
    const HDEVINFO handle = ::SetupDiGetClassDevsW(&kBluetoothClass, nullptr, nullptr, DIGCF_PRESENT);
    if (handle == INVALID_HANDLE_VALUE) {
        list.error = lastSystemError();
        return list;
    }
    const DeviceSet set(handle, [](void* devices) { ::SetupDiDestroyDeviceInfoList(devices); });
    SP_DEVINFO_DATA device{};
    device.cbSize = sizeof device;
    for (DWORD index = 0; ::SetupDiEnumDeviceInfo(set.get(), index, &device); ++index)
        list.devices.push_back(std::make_shared<WindowsDriverDevice>(set, device));
    return list;
}

std::filesystem::path driversDbPath() {
    return executableDirectory() / "drivers.db";
}

}  // namespace platform
