// Characteristics and their notifications.
#include "tests/winrt_provider/characteristic.h"

#include "tests/winrt_provider/buffer.h"
#include "tests/winrt_provider/events.h"
#include "tests/winrt_provider/guid.h"

namespace provider {

namespace {

using foundation::IAsyncOperation;
using StatusOperation = IAsyncOperation<gatt::GattCommunicationStatus>;
using ValueChangedHandler =
    foundation::ITypedEventHandler<gatt::GattCharacteristic*, gatt::GattValueChangedEventArgs*>;

class ValueChanged final : public Object<ValueChanged, gatt::IGattValueChangedEventArgs> {
  public:
    static constexpr const wchar_t* kClassName =
        L"Windows.Devices.Bluetooth.GenericAttributeProfile.GattValueChangedEventArgs";

    explicit ValueChanged(std::span<const std::uint8_t> value)
        : value_(makeBuffer({value.begin(), value.end()})) {}

    HRESULT get_CharacteristicValue(streams::IBuffer** out) override { return value_.CopyTo(out); }
    HRESULT get_Timestamp(INT64*) override { return E_NOTIMPL; }

  private:
    const ComPtr<streams::IBuffer> value_;
};

struct CharacteristicSlots : gatt::IGattCharacteristic {
    using Interface = gatt::IGattCharacteristic;
    HRESULT GetDescriptors(GUID, IInspectable**) override { return E_NOTIMPL; }
    HRESULT get_CharacteristicProperties(UINT32*) override { return E_NOTIMPL; }
    HRESULT get_ProtectionLevel(INT32*) override { return E_NOTIMPL; }
    HRESULT put_ProtectionLevel(INT32) override { return E_NOTIMPL; }
    HRESULT get_UserDescription(HSTRING*) override { return E_NOTIMPL; }
    HRESULT get_AttributeHandle(UINT16*) override { return E_NOTIMPL; }
    HRESULT get_PresentationFormats(IInspectable**) override { return E_NOTIMPL; }
    HRESULT ReadValueAsync(IInspectable**) override { return E_NOTIMPL; }
    HRESULT ReadValueWithCacheModeAsync(ABI::Windows::Devices::Bluetooth::BluetoothCacheMode,
                                        IInspectable**) override {
        return E_NOTIMPL;
    }
    HRESULT ReadClientCharacteristicConfigurationDescriptorAsync(IInspectable**) override {
        return E_NOTIMPL;
    }
};

class Characteristic final : public Object<Characteristic, CharacteristicSlots> {
  public:
    static constexpr const wchar_t* kClassName =
        L"Windows.Devices.Bluetooth.GenericAttributeProfile.GattCharacteristic";

    explicit Characteristic(std::shared_ptr<platform::GattCharacteristic> characteristic)
        : characteristic_(std::move(characteristic)) {}

    HRESULT get_Uuid(GUID* out) override {
        return guarded([&] { *out = toAbi(characteristic_->uuid()); });
    }

    HRESULT WriteValueAsync(streams::IBuffer* value, StatusOperation** out) override {
        return WriteValueWithOptionAsync(value, gatt::GattWriteOption_WriteWithResponse, out);
    }
    HRESULT WriteValueWithOptionAsync(streams::IBuffer* value, gatt::GattWriteOption option,
                                      StatusOperation** out) override {
        *out = nullptr;
        return guarded([&] {
            const auto seamOption = static_cast<platform::GattWriteOption>(option);
            handOut(characteristic_->writeValueAsync(bytesOf(value), seamOption), toStatus, out);
        });
    }
    HRESULT WriteClientCharacteristicConfigurationDescriptorAsync(
        gatt::GattClientCharacteristicConfigurationDescriptorValue value, StatusOperation** out) override {
        *out = nullptr;
        return guarded([&] {
            const auto seamValue =
                static_cast<platform::GattClientCharacteristicConfigurationDescriptorValue>(value);
            handOut(characteristic_->writeClientCharacteristicConfigurationDescriptorAsync(seamValue),
                    toStatus, out);
        });
    }

    HRESULT add_ValueChanged(ValueChangedHandler* handler, EventRegistrationToken* out) override {
        const auto tell = [this, handler = ComPtr<ValueChangedHandler>(handler)](auto*, const auto* args) {
            if (const auto sender = self()) {
                handler->Invoke(sender.Get(), args ? make<ValueChanged>(args->value).Get() : nullptr);
            }
        };
        return guarded([&] { *out = registrations_.add(characteristic_->onValueChanged(tell)); });
    }
    HRESULT remove_ValueChanged(EventRegistrationToken token) override {
        registrations_.remove(token);
        return S_OK;
    }

  private:
    static void toStatus(platform::GattCommunicationStatus status, gatt::GattCommunicationStatus* out) {
        *out = static_cast<gatt::GattCommunicationStatus>(status);
    }

    const std::shared_ptr<platform::GattCharacteristic> characteristic_;
    EventRegistrations registrations_;
};

}  // namespace

ComPtr<gatt::IGattCharacteristic> wrapCharacteristic(
    const std::shared_ptr<platform::GattCharacteristic>& characteristic) {
    return make<Characteristic>(characteristic);
}

}  // namespace provider
