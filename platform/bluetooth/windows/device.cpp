#include <windows.devices.bluetooth.h>

#include "gatt.h"
#include "platform/pairing.h"

namespace platform {

namespace {

namespace abi = ABI::Windows::Devices::Bluetooth;
using ABI::Windows::Foundation::IAsyncOperation;
using winrt::ComPtr;

class WindowsDevice final : public BluetoothLEDevice {
  public:
    explicit WindowsDevice(ComPtr<abi::IBluetoothLEDevice> device) : device_(std::move(device)) {}

    BluetoothConnectionStatus connectionStatus() const override {
        return static_cast<BluetoothConnectionStatus>(
            winrt::valueOf(device_, &abi::IBluetoothLEDevice::get_ConnectionStatus));
    }

    std::vector<std::shared_ptr<GattDeviceService>> gattServices() override {
        return winrt::servicesOf(winrt::objectOf(device_, &abi::IBluetoothLEDevice::get_GattServices));
    }

    AsyncOperationPtr<GattDeviceServicesResult> getGattServicesForUuidAsync(const Guid& uuid) override {
        ComPtr<ServicesOperation> operation;
        winrt::check(winrt::query<abi::IBluetoothLEDevice3>(device_)->GetGattServicesForUuidAsync(
            winrt::toRuntime(uuid), operation.GetAddressOf()));
        return winrt::makeServicesOperation(std::move(operation));
    }

    AsyncOperationPtr<GattDeviceServicesResult> getGattServicesAsync(BluetoothCacheMode mode) override {
        ComPtr<ServicesOperation> operation;
        winrt::check(winrt::query<abi::IBluetoothLEDevice3>(device_)->GetGattServicesWithCacheModeAsync(
            static_cast<abi::BluetoothCacheMode>(mode), operation.GetAddressOf()));
        return winrt::makeServicesOperation(std::move(operation));
    }

  private:
    using ServicesOperation = IAsyncOperation<abi::GenericAttributeProfile::GattDeviceServicesResult*>;

    const ComPtr<abi::IBluetoothLEDevice> device_;
};

constexpr auto* kDeviceClass = RuntimeClass_Windows_Devices_Bluetooth_BluetoothLEDevice;

}  // namespace

AsyncOperationPtr<std::shared_ptr<BluetoothLEDevice>> bluetoothLEDeviceFromAddressAsync(
    std::uint64_t address) {
    const auto devices = winrt::activationFactory<abi::IBluetoothLEDeviceStatics>(kDeviceClass);
    ComPtr<IAsyncOperation<abi::BluetoothLEDevice*>> operation;
    winrt::check(devices->FromBluetoothAddressAsync(address, operation.GetAddressOf()));
    using Result = std::shared_ptr<BluetoothLEDevice>;
    return winrt::makeOperation<Result>(std::move(operation),
                                        [](const ComPtr<abi::IBluetoothLEDevice>& device) -> Result {
                                            if (!device) return nullptr;
                                            return std::make_shared<WindowsDevice>(device);
                                        });
}

std::wstring deviceSelectorFromBluetoothAddress(std::uint64_t address) {
    const auto devices = winrt::activationFactory<abi::IBluetoothLEDeviceStatics2>(kDeviceClass);
    winrt::RuntimeString selector;
    winrt::check(devices->GetDeviceSelectorFromBluetoothAddress(address, selector.put()));
    return selector.text();
}

}  // namespace platform
