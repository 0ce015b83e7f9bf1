// Devices, their services, sessions and characteristics.
#include "platform/gatt.h"

#include <windows.devices.bluetooth.genericattributeprofile.h>
#include <windows.devices.bluetooth.h>

#include "platform/pairing.h"
#include "tests/winrt_provider/async.h"
#include "tests/winrt_provider/buffer.h"
#include "tests/winrt_provider/events.h"
#include "tests/winrt_provider/provider.h"

namespace provider {

namespace {

namespace devices = ABI::Windows::Devices::Bluetooth;
namespace gatt = devices::GenericAttributeProfile;
using CharacteristicView = IVectorView<gatt::GattCharacteristic*>;
using ServiceView = IVectorView<gatt::GattDeviceService*>;
using StatusOperation = IAsyncOperation<gatt::GattCommunicationStatus>;
using ServicesOperation = IAsyncOperation<gatt::GattDeviceServicesResult*>;
using ValueChangedHandler =
    foundation::ITypedEventHandler<gatt::GattCharacteristic*, gatt::GattValueChangedEventArgs*>;
using StatusChangedHandler =
    foundation::ITypedEventHandler<gatt::GattSession*, gatt::GattSessionStatusChangedEventArgs*>;

platform::Guid fromAbi(const GUID& guid) {
    return std::bit_cast<platform::Guid>(guid);
}

class ValueChanged final : public Object<ValueChanged, gatt::IGattValueChangedEventArgs> {
  public:
    explicit ValueChanged(std::span<const std::uint8_t> value)
        : value_(makeBuffer({value.begin(), value.end()})) {}

    HRESULT get_CharacteristicValue(streams::IBuffer** out) override { return value_.CopyTo(out); }

  private:
    const ComPtr<streams::IBuffer> value_;
};

class Characteristic final : public Object<Characteristic, gatt::IGattCharacteristic> {
  public:
    explicit Characteristic(std::shared_ptr<platform::GattCharacteristic> characteristic)
        : characteristic_(std::move(characteristic)) {}

    HRESULT get_Uuid(GUID* out) override {
        return give(out, [&] { return characteristic_->uuid(); });
    }
    HRESULT WriteValueWithOptionAsync(streams::IBuffer* value, gatt::GattWriteOption option,
                                      StatusOperation** out) override {
        return give(out, [&] {
            return wrap<gatt::GattCommunicationStatus>(characteristic_->writeValueAsync(
                bytesOf(value), static_cast<platform::GattWriteOption>(option)));
        });
    }
    HRESULT WriteClientCharacteristicConfigurationDescriptorAsync(
        gatt::GattClientCharacteristicConfigurationDescriptorValue value, StatusOperation** out) override {
        using Value = platform::GattClientCharacteristicConfigurationDescriptorValue;
        return give(out, [&] {
            return wrap<gatt::GattCommunicationStatus>(
                characteristic_->writeClientCharacteristicConfigurationDescriptorAsync(
                    static_cast<Value>(value)));
        });
    }

    HRESULT add_ValueChanged(ValueChangedHandler* handler, EventRegistrationToken* out) override {
        const auto tell = [this, handler = ComPtr<ValueChangedHandler>(handler)](auto*, const auto* args) {
            const auto value = args ? make<ValueChanged>(args->value) : nullptr;
            if (const auto sender = self())
                raise([sender, handler, value] { handler->Invoke(sender.Get(), value.Get()); });
        };
        return registrations_.add(out, [&] { return characteristic_->onValueChanged(tell); });
    }
    HRESULT remove_ValueChanged(EventRegistrationToken token) override {
        return registrations_.remove(token);
    }

  private:
    const std::shared_ptr<platform::GattCharacteristic> characteristic_;
    EventRegistrations registrations_;
};

class StatusChanged final : public Object<StatusChanged, gatt::IGattSessionStatusChangedEventArgs> {
  public:
    explicit StatusChanged(platform::GattSessionStatus status) : status_(status) {}

    HRESULT get_Status(gatt::GattSessionStatus* out) override {
        return give(out, [&] { return status_; });
    }

  private:
    const platform::GattSessionStatus status_;
};

class Session final : public Object<Session, gatt::IGattSession> {
  public:
    explicit Session(std::shared_ptr<platform::GattSession> session) : session_(std::move(session)) {}

    HRESULT add_SessionStatusChanged(StatusChangedHandler* handler, EventRegistrationToken* out) override {
        const auto tell = [this, handler = ComPtr<StatusChangedHandler>(handler)](auto status) {
            if (const auto sender = self()) handler->Invoke(sender.Get(), make<StatusChanged>(status).Get());
        };
        return registrations_.add(out, [&] { return session_->onSessionStatusChanged(tell); });
    }
    HRESULT remove_SessionStatusChanged(EventRegistrationToken token) override {
        return registrations_.remove(token);
    }

  private:
    const std::shared_ptr<platform::GattSession> session_;
    EventRegistrations registrations_;
};

class CharacteristicsResult final : public Object<CharacteristicsResult, gatt::IGattCharacteristicsResult> {
  public:
    explicit CharacteristicsResult(platform::GattCharacteristicsResult result) : result_(std::move(result)) {}

    HRESULT get_Status(gatt::GattCommunicationStatus* out) override {
        return give(out, [&] { return result_.status; });
    }
    HRESULT get_Characteristics(CharacteristicView** out) override {
        return give(
            out, [&] { return viewOf<gatt::GattCharacteristic*, Characteristic>(result_.characteristics); });
    }

  private:
    const platform::GattCharacteristicsResult result_;
};

class Service final : public Object<Service, gatt::IGattDeviceService, gatt::IGattDeviceService3> {
  public:
    explicit Service(std::shared_ptr<platform::GattDeviceService> service) : service_(std::move(service)) {}

    bool offers(REFIID iid) const { return iid != __uuidof(gatt::IGattDeviceService3) || !olderWindows(); }

    HRESULT get_Uuid(GUID* out) override {
        return give(out, [&] { return service_->uuid(); });
    }
    HRESULT GetCharacteristics(GUID uuid, CharacteristicView** out) override {
        return give(out, [&] {
            const std::optional list = service_->getCharacteristics(fromAbi(uuid));
            return viewOf<gatt::GattCharacteristic*, Characteristic>(list);
        });
    }
    HRESULT GetCharacteristicsForUuidAsync(GUID uuid,
                                           IAsyncOperation<gatt::GattCharacteristicsResult*>** out) override {
        return give(out, [&] {
            return wrap<gatt::GattCharacteristicsResult*>(
                service_->getCharacteristicsForUuidAsync(fromAbi(uuid)),
                [](const auto& result) { return make<CharacteristicsResult>(result); });
        });
    }
    HRESULT get_Session(gatt::IGattSession** out) override {
        return give(out, [&] { return make<Session>(service_->session()); });
    }

  private:
    const std::shared_ptr<platform::GattDeviceService> service_;
};

class ServicesResult final : public Object<ServicesResult, gatt::IGattDeviceServicesResult> {
  public:
    explicit ServicesResult(platform::GattDeviceServicesResult result) : result_(std::move(result)) {}

    HRESULT get_Status(gatt::GattCommunicationStatus* out) override {
        return give(out, [&] { return result_.status; });
    }
    HRESULT get_Services(ServiceView** out) override {
        return give(out, [&] { return viewOf<gatt::GattDeviceService*, Service>(result_.services); });
    }

  private:
    const platform::GattDeviceServicesResult result_;
};

class Device final : public Object<Device, devices::IBluetoothLEDevice, devices::IBluetoothLEDevice3> {
  public:
    explicit Device(std::shared_ptr<platform::BluetoothLEDevice> device) : device_(std::move(device)) {}

    bool offers(REFIID iid) const { return iid != __uuidof(devices::IBluetoothLEDevice3) || !olderWindows(); }

    HRESULT get_GattServices(ServiceView** out) override {
        return give(out, [&] {
            const std::optional list = device_->gattServices();
            return viewOf<gatt::GattDeviceService*, Service>(list);
        });
    }
    HRESULT get_ConnectionStatus(devices::BluetoothConnectionStatus* out) override {
        return give(out, [&] { return device_->connectionStatus(); });
    }
    HRESULT GetGattServicesWithCacheModeAsync(devices::BluetoothCacheMode mode,
                                              ServicesOperation** out) override {
        return give(out, [&] {
            return services(device_->getGattServicesAsync(static_cast<platform::BluetoothCacheMode>(mode)));
        });
    }
    HRESULT GetGattServicesForUuidAsync(GUID uuid, ServicesOperation** out) override {
        return give(out, [&] { return services(device_->getGattServicesForUuidAsync(fromAbi(uuid))); });
    }

  private:
    static ComPtr<ServicesOperation> services(
        platform::AsyncOperationPtr<platform::GattDeviceServicesResult> operation) {
        return wrap<gatt::GattDeviceServicesResult*>(
            std::move(operation), [](const auto& result) { return make<ServicesResult>(result); });
    }

    const std::shared_ptr<platform::BluetoothLEDevice> device_;
};

class DeviceFactory final : public FactoryOf<DeviceFactory, devices::IBluetoothLEDeviceStatics,
                                             devices::IBluetoothLEDeviceStatics2> {
  public:
    HRESULT FromBluetoothAddressAsync(UINT64 address,
                                      IAsyncOperation<devices::BluetoothLEDevice*>** out) override {
        return give(out, [&] {
            return wrap<devices::BluetoothLEDevice*>(
                platform::bluetoothLEDeviceFromAddressAsync(address),
                [](const auto& device) { return device ? make<Device>(device) : nullptr; });
        });
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
