// Devices, their services, sessions and characteristics.
#include "platform/gatt.h"

#include <windows.devices.bluetooth.genericattributeprofile.h>
#include <windows.devices.bluetooth.h>

#include "platform/pairing.h"
#include "tests/winrt_provider/buffer.h"
#include "tests/winrt_provider/events.h"
#include "tests/winrt_provider/provider.h"
#include "tests/winrt_provider/view.h"

namespace provider {

namespace {

namespace devices = ABI::Windows::Devices::Bluetooth;
namespace gatt = devices::GenericAttributeProfile;
using StatusOperation = IAsyncOperation<gatt::GattCommunicationStatus>;
using ServicesOperation = IAsyncOperation<gatt::GattDeviceServicesResult*>;
using CharacteristicView = IVectorView<gatt::GattCharacteristic*>;
using ServiceView = IVectorView<gatt::GattDeviceService*>;
using ValueChangedHandler =
    foundation::ITypedEventHandler<gatt::GattCharacteristic*, gatt::GattValueChangedEventArgs*>;
using StatusChangedHandler =
    foundation::ITypedEventHandler<gatt::GattSession*, gatt::GattSessionStatusChangedEventArgs*>;

struct ValueChanged final : View<ValueChanged, ComPtr<streams::IBuffer>, gatt::IGattValueChangedEventArgs> {
    using View::View;

    HRESULT get_CharacteristicValue(streams::IBuffer** out) override { return show(out, std::identity()); }
};

using SeamCharacteristic = platform::GattCharacteristic;
struct Characteristic final
    : View<Characteristic, std::shared_ptr<SeamCharacteristic>, gatt::IGattCharacteristic> {
    using View::View;

    HRESULT get_Uuid(GUID* out) override { return show(out, &SeamCharacteristic::uuid); }
    HRESULT WriteValueWithOptionAsync(streams::IBuffer* value, gatt::GattWriteOption option,
                                      StatusOperation** out) override {
        return give(out, [&] { return shown_->writeValueAsync(bytesOf(value), FromAbi{option}); });
    }
    HRESULT WriteClientCharacteristicConfigurationDescriptorAsync(
        gatt::GattClientCharacteristicConfigurationDescriptorValue value, StatusOperation** out) override {
        return show(out, &SeamCharacteristic::writeClientCharacteristicConfigurationDescriptorAsync,
                    FromAbi{value});
    }
    HRESULT add_ValueChanged(ValueChangedHandler* handler, Token* out) override {
        const auto tell = [this, handler = ComPtr<ValueChangedHandler>(handler)](auto*, const auto* args) {
            const auto value =
                args ? make<ValueChanged>(makeBuffer({args->value.begin(), args->value.end()})) : nullptr;
            if (const auto sender = self())
                raise([sender, handler, value] { handler->Invoke(sender.Get(), value.Get()); });
        };
        return handlers_.add(out, [&] { return shown_->onValueChanged(tell); });
    }
    HRESULT remove_ValueChanged(Token token) override { return handlers_.remove(token); }

  private:
    Registrations handlers_;
};

struct StatusChanged final
    : View<StatusChanged, platform::GattSessionStatus, gatt::IGattSessionStatusChangedEventArgs> {
    using View::View;

    HRESULT get_Status(gatt::GattSessionStatus* out) override { return show(out, std::identity()); }
};

struct Session final : View<Session, std::shared_ptr<platform::GattSession>, gatt::IGattSession> {
    using View::View;

    HRESULT add_SessionStatusChanged(StatusChangedHandler* handler, Token* out) override {
        const auto tell = [this, handler = ComPtr<StatusChangedHandler>(handler)](auto status) {
            if (const auto sender = self()) handler->Invoke(sender.Get(), make<StatusChanged>(status).Get());
        };
        return handlers_.add(out, [&] { return shown_->onSessionStatusChanged(tell); });
    }
    HRESULT remove_SessionStatusChanged(Token token) override { return handlers_.remove(token); }

  private:
    Registrations handlers_;
};

using Characteristics = platform::GattCharacteristicsResult;
struct CharacteristicsResult final
    : View<CharacteristicsResult, Characteristics, gatt::IGattCharacteristicsResult> {
    using View::View;

    HRESULT get_Status(gatt::GattCommunicationStatus* out) override {
        return show(out, &Characteristics::status);
    }
    HRESULT get_Characteristics(CharacteristicView** out) override {
        return show<Characteristic>(out, &Characteristics::characteristics);
    }
};

using SeamService = platform::GattDeviceService;
struct Service final
    : View<Service, std::shared_ptr<SeamService>, gatt::IGattDeviceService, gatt::IGattDeviceService3> {
    using View::View;

    bool offers(REFIID iid) const { return iid != __uuidof(gatt::IGattDeviceService3) || !olderWindows(); }

    HRESULT get_Uuid(GUID* out) override { return show(out, &SeamService::uuid); }
    HRESULT GetCharacteristics(GUID uuid, CharacteristicView** out) override {
        return show<Characteristic>(out, &SeamService::getCharacteristics, FromAbi{uuid});
    }
    HRESULT GetCharacteristicsForUuidAsync(GUID uuid,
                                           IAsyncOperation<gatt::GattCharacteristicsResult*>** out) override {
        return show<CharacteristicsResult>(out, &SeamService::getCharacteristicsForUuidAsync, FromAbi{uuid});
    }
    HRESULT get_Session(gatt::IGattSession** out) override {
        return show<Session>(out, &SeamService::session);
    }
};

using Services = platform::GattDeviceServicesResult;
struct ServicesResult final : View<ServicesResult, Services, gatt::IGattDeviceServicesResult> {
    using View::View;

    HRESULT get_Status(gatt::GattCommunicationStatus* out) override { return show(out, &Services::status); }
    HRESULT get_Services(ServiceView** out) override { return show<Service>(out, &Services::services); }
};

using SeamDevice = platform::BluetoothLEDevice;
struct Device final
    : View<Device, std::shared_ptr<SeamDevice>, devices::IBluetoothLEDevice, devices::IBluetoothLEDevice3> {
    using View::View;

    bool offers(REFIID iid) const { return iid != __uuidof(devices::IBluetoothLEDevice3) || !olderWindows(); }

    HRESULT get_GattServices(ServiceView** out) override {
        return show<Service>(out, &SeamDevice::gattServices);
    }
    HRESULT get_ConnectionStatus(devices::BluetoothConnectionStatus* out) override {
        return show(out, &SeamDevice::connectionStatus);
    }
    HRESULT GetGattServicesWithCacheModeAsync(devices::BluetoothCacheMode mode,
                                              ServicesOperation** out) override {
        return show<ServicesResult>(out, &SeamDevice::getGattServicesAsync, FromAbi{mode});
    }
    HRESULT GetGattServicesForUuidAsync(GUID uuid, ServicesOperation** out) override {
        return show<ServicesResult>(out, &SeamDevice::getGattServicesForUuidAsync, FromAbi{uuid});
    }
};

struct DeviceFactory final
    : FactoryOf<DeviceFactory, devices::IBluetoothLEDeviceStatics, devices::IBluetoothLEDeviceStatics2> {
    HRESULT FromBluetoothAddressAsync(UINT64 address,
                                      IAsyncOperation<devices::BluetoothLEDevice*>** out) override {
        return give<Device>(out, [&] { return platform::bluetoothLEDeviceFromAddressAsync(address); });
    }
    HRESULT GetDeviceSelectorFromBluetoothAddress(UINT64 address, HSTRING* out) override {
        return give(out, [&] { return platform::deviceSelectorFromBluetoothAddress(address); });
    }
};

}  // namespace

OpenObjects openObjects() {
    return {Service::live(), Device::live(), Session::live()};
}

ComPtr<IActivationFactory> bluetoothLEDeviceFactory() {
    return make<DeviceFactory>();
}

}  // namespace provider
