#include <windows.devices.bluetooth.h>

#include "platform/pairing.h"
#include "tests/winrt_provider/closable.h"
#include "tests/winrt_provider/gatt.h"
#include "tests/winrt_provider/guid.h"
#include "tests/winrt_provider/provider.h"

namespace provider {

namespace bluetooth = ABI::Windows::Devices::Bluetooth;
using DeviceOperation = foundation::IAsyncOperation<bluetooth::BluetoothLEDevice*>;
using ServicesOperation = foundation::IAsyncOperation<gatt::GattDeviceServicesResult*>;

template <>
inline constexpr const wchar_t* kOperationName<bluetooth::BluetoothLEDevice*> =
    L"Windows.Foundation.IAsyncOperation`1<Windows.Devices.Bluetooth.BluetoothLEDevice>";

namespace {

struct DeviceSlots : bluetooth::IBluetoothLEDevice {
    using Interface = bluetooth::IBluetoothLEDevice;
    HRESULT get_DeviceId(HSTRING*) override { return E_NOTIMPL; }
    HRESULT get_Name(HSTRING*) override { return E_NOTIMPL; }
    HRESULT get_BluetoothAddress(UINT64*) override { return E_NOTIMPL; }
    HRESULT GetGattService(GUID, gatt::IGattDeviceService**) override { return E_NOTIMPL; }
    HRESULT add_NameChanged(IUnknown*, EventRegistrationToken*) override { return E_NOTIMPL; }
    HRESULT remove_NameChanged(EventRegistrationToken) override { return E_NOTIMPL; }
    HRESULT add_GattServicesChanged(IUnknown*, EventRegistrationToken*) override { return E_NOTIMPL; }
    HRESULT remove_GattServicesChanged(EventRegistrationToken) override { return E_NOTIMPL; }
    HRESULT add_ConnectionStatusChanged(IUnknown*, EventRegistrationToken*) override { return E_NOTIMPL; }
    HRESULT remove_ConnectionStatusChanged(EventRegistrationToken) override { return E_NOTIMPL; }
};

struct Device3Slots : bluetooth::IBluetoothLEDevice3 {
    using Interface = bluetooth::IBluetoothLEDevice3;
    HRESULT get_DeviceAccessInformation(IInspectable**) override { return E_NOTIMPL; }
    HRESULT RequestAccessAsync(IInspectable**) override { return E_NOTIMPL; }
    HRESULT GetGattServicesForUuidWithCacheModeAsync(GUID, bluetooth::BluetoothCacheMode,
                                                     ServicesOperation**) override {
        return E_NOTIMPL;
    }
};

class Device final : public Object<Device, DeviceSlots, Device3Slots, foundation::IClosable> {
  public:
    static constexpr const wchar_t* kClassName = L"Windows.Devices.Bluetooth.BluetoothLEDevice";

    explicit Device(std::shared_ptr<platform::BluetoothLEDevice> device) : device_(std::move(device)) {}

    HRESULT QueryInterface(REFIID iid, void** out) override {
        if (iid != __uuidof(bluetooth::IBluetoothLEDevice3) || !olderWindows())
            return Object::QueryInterface(iid, out);
        *out = nullptr;
        return E_NOINTERFACE;
    }

    HRESULT get_GattServices(ServiceView** out) override {
        *out = nullptr;
        return guarded([&] { handOutServices(device_->gattServices(), out); });
    }
    HRESULT get_ConnectionStatus(bluetooth::BluetoothConnectionStatus* out) override {
        return guarded(
            [&] { *out = static_cast<bluetooth::BluetoothConnectionStatus>(device_->connectionStatus()); });
    }

    HRESULT GetGattServicesAsync(ServicesOperation** out) override {
        return GetGattServicesWithCacheModeAsync(bluetooth::BluetoothCacheMode_Cached, out);
    }
    HRESULT GetGattServicesWithCacheModeAsync(bluetooth::BluetoothCacheMode mode,
                                              ServicesOperation** out) override {
        *out = nullptr;
        return guarded([&] {
            handOutServices(device_->getGattServicesAsync(static_cast<platform::BluetoothCacheMode>(mode)),
                            out);
        });
    }
    HRESULT GetGattServicesForUuidAsync(GUID uuid, ServicesOperation** out) override {
        *out = nullptr;
        return guarded([&] { handOutServices(device_->getGattServicesForUuidAsync(fromAbi(uuid)), out); });
    }

    HRESULT Close() override {
        device_.close();
        return S_OK;
    }

  private:
    Closable<platform::BluetoothLEDevice> device_;
};

struct StaticsSlots : bluetooth::IBluetoothLEDeviceStatics {
    using Interface = bluetooth::IBluetoothLEDeviceStatics;
    HRESULT FromIdAsync(HSTRING, DeviceOperation**) override { return E_NOTIMPL; }
    HRESULT GetDeviceSelector(HSTRING*) override { return E_NOTIMPL; }
};

struct Statics2Slots : bluetooth::IBluetoothLEDeviceStatics2 {
    using Interface = bluetooth::IBluetoothLEDeviceStatics2;
    HRESULT GetDeviceSelectorFromPairingState(boolean, HSTRING*) override { return E_NOTIMPL; }
    HRESULT GetDeviceSelectorFromConnectionStatus(bluetooth::BluetoothConnectionStatus, HSTRING*) override {
        return E_NOTIMPL;
    }
    HRESULT GetDeviceSelectorFromDeviceName(HSTRING, HSTRING*) override { return E_NOTIMPL; }
    HRESULT GetDeviceSelectorFromBluetoothAddressWithBluetoothAddressType(UINT64, INT32, HSTRING*) override {
        return E_NOTIMPL;
    }
    HRESULT GetDeviceSelectorFromAppearance(IInspectable*, HSTRING*) override { return E_NOTIMPL; }
    HRESULT FromBluetoothAddressWithBluetoothAddressTypeAsync(UINT64, INT32, DeviceOperation**) override {
        return E_NOTIMPL;
    }
};

class Factory final : public Object<Factory, StaticsOnly, StaticsSlots, Statics2Slots> {
  public:
    static constexpr const wchar_t* kClassName = L"BluetoothLEDevice factory";

    HRESULT FromBluetoothAddressAsync(UINT64 address, DeviceOperation** out) override {
        const auto convert = [](const auto& device, bluetooth::IBluetoothLEDevice** object) {
            if (device) *object = static_cast<DeviceSlots*>(make<Device>(device).Detach());
        };
        *out = nullptr;
        return guarded([&] { handOut(platform::bluetoothLEDeviceFromAddressAsync(address), convert, out); });
    }
    HRESULT GetDeviceSelectorFromBluetoothAddress(UINT64 address, HSTRING* out) override {
        return guarded([&] { check(handOut(platform::deviceSelectorFromBluetoothAddress(address), out)); });
    }
};

}  // namespace

ComPtr<IActivationFactory> bluetoothLEDeviceFactory() {
    return make<Factory>();
}

}  // namespace provider
