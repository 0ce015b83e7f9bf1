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

class ValueChanged final
    : public View<ValueChanged, ComPtr<streams::IBuffer>, gatt::IGattValueChangedEventArgs> {
  public:
    using View::View;

    HRESULT get_CharacteristicValue(streams::IBuffer** out) override { return show(out, std::identity()); }
};

using SeamCharacteristic = platform::GattCharacteristic;
class Characteristic final
    : public View<Characteristic, std::shared_ptr<SeamCharacteristic>, gatt::IGattCharacteristic> {
  public:
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
    HRESULT add_ValueChanged(ValueChangedHandler* handler, EventRegistrationToken* out) override {
        const auto tell = [this, handler = ComPtr<ValueChangedHandler>(handler)](auto*, const auto* args) {
            const auto value =
                args ? make<ValueChanged>(makeBuffer({args->value.begin(), args->value.end()})) : nullptr;
            if (const auto sender = self())
                raise([sender, handler, value] { handler->Invoke(sender.Get(), value.Get()); });
        };
        return registrations_.add(out, [&] { return shown_->onValueChanged(tell); });
    }
    HRESULT remove_ValueChanged(EventRegistrationToken token) override {
        return registrations_.remove(token);
    }

  private:
    EventRegistrations registrations_;
};

class StatusChanged final
    : public View<StatusChanged, platform::GattSessionStatus, gatt::IGattSessionStatusChangedEventArgs> {
  public:
    using View::View;

    HRESULT get_Status(gatt::GattSessionStatus* out) override { return show(out, std::identity()); }
};

class Session final : public View<Session, std::shared_ptr<platform::GattSession>, gatt::IGattSession> {
  public:
    using View::View;

    HRESULT add_SessionStatusChanged(StatusChangedHandler* handler, EventRegistrationToken* out) override {
        const auto tell = [this, handler = ComPtr<StatusChangedHandler>(handler)](auto status) {
            if (const auto sender = self()) handler->Invoke(sender.Get(), make<StatusChanged>(status).Get());
        };
        return registrations_.add(out, [&] { return shown_->onSessionStatusChanged(tell); });
    }
    HRESULT remove_SessionStatusChanged(EventRegistrationToken token) override {
        return registrations_.remove(token);
    }

  private:
    EventRegistrations registrations_;
};

using Characteristics = platform::GattCharacteristicsResult;
class CharacteristicsResult final
    : public View<CharacteristicsResult, Characteristics, gatt::IGattCharacteristicsResult> {
  public:
    using View::View;

    HRESULT get_Status(gatt::GattCommunicationStatus* out) override {
        return show(out, &Characteristics::status);
    }
    HRESULT get_Characteristics(CharacteristicView** out) override {
        return show<Characteristic>(out, &Characteristics::characteristics);
    }
};

using SeamService = platform::GattDeviceService;
class Service final : public View<Service, std::shared_ptr<SeamService>, gatt::IGattDeviceService,
                                  gatt::IGattDeviceService3> {
  public:
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
class ServicesResult final : public View<ServicesResult, Services, gatt::IGattDeviceServicesResult> {
  public:
    using View::View;

    HRESULT get_Status(gatt::GattCommunicationStatus* out) override { return show(out, &Services::status); }
    HRESULT get_Services(ServiceView** out) override { return show<Service>(out, &Services::services); }
};

using SeamDevice = platform::BluetoothLEDevice;
class Device final : public View<Device, std::shared_ptr<SeamDevice>, devices::IBluetoothLEDevice,
                                 devices::IBluetoothLEDevice3> {
  public:
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

class DeviceFactory final : public FactoryOf<DeviceFactory, devices::IBluetoothLEDeviceStatics,
                                             devices::IBluetoothLEDeviceStatics2> {
  public:
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
