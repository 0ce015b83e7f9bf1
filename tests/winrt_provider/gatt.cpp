// Services, sessions and what look-ups return.
#include "tests/winrt_provider/gatt.h"

#include "tests/winrt_provider/characteristic.h"
#include "tests/winrt_provider/closable.h"
#include "tests/winrt_provider/events.h"
#include "tests/winrt_provider/guid.h"

namespace provider {

namespace {

using ABI::Windows::Devices::Bluetooth::BluetoothCacheMode;
using foundation::IAsyncOperation;
using foundation::IClosable;
using CharacteristicView = foundation::Collections::IVectorView<gatt::GattCharacteristic*>;
using CharacteristicsOperation = IAsyncOperation<gatt::GattCharacteristicsResult*>;
using ServicesOperation = IAsyncOperation<gatt::GattDeviceServicesResult*>;
using StatusChangedHandler =
    foundation::ITypedEventHandler<gatt::GattSession*, gatt::GattSessionStatusChangedEventArgs*>;

class StatusChanged final : public Object<StatusChanged, gatt::IGattSessionStatusChangedEventArgs> {
  public:
    static constexpr const wchar_t* kClassName =
        L"Windows.Devices.Bluetooth.GenericAttributeProfile.GattSessionStatusChangedEventArgs";

    explicit StatusChanged(platform::GattSessionStatus status) : status_(status) {}

    HRESULT get_Error(INT32*) override { return E_NOTIMPL; }
    HRESULT get_Status(gatt::GattSessionStatus* out) override {
        *out = static_cast<gatt::GattSessionStatus>(status_);
        return S_OK;
    }

  private:
    const platform::GattSessionStatus status_;
};

struct SessionSlots : gatt::IGattSession {
    using Interface = gatt::IGattSession;
    HRESULT get_DeviceId(IInspectable**) override { return E_NOTIMPL; }
    HRESULT get_CanMaintainConnection(boolean*) override { return E_NOTIMPL; }
    HRESULT put_MaintainConnection(boolean) override { return E_NOTIMPL; }
    HRESULT get_MaintainConnection(boolean*) override { return E_NOTIMPL; }
    HRESULT get_MaxPduSize(UINT16*) override { return E_NOTIMPL; }
    HRESULT get_SessionStatus(gatt::GattSessionStatus*) override { return E_NOTIMPL; }
    HRESULT add_MaxPduSizeChanged(IUnknown*, EventRegistrationToken*) override { return E_NOTIMPL; }
    HRESULT remove_MaxPduSizeChanged(EventRegistrationToken) override { return E_NOTIMPL; }
};

class Session final : public Object<Session, SessionSlots, IClosable> {
  public:
    static constexpr const wchar_t* kClassName =
        L"Windows.Devices.Bluetooth.GenericAttributeProfile.GattSession";

    explicit Session(std::shared_ptr<platform::GattSession> session) : session_(std::move(session)) {}

    HRESULT add_SessionStatusChanged(StatusChangedHandler* handler, EventRegistrationToken* out) override {
        const auto tell =
            [this, handler = ComPtr<StatusChangedHandler>(handler)](platform::GattSessionStatus status) {
                if (const auto sender = self())
                    handler->Invoke(sender.Get(), make<StatusChanged>(status).Get());
            };
        return guarded([&] { *out = registrations_.add(session_->onSessionStatusChanged(tell)); });
    }
    HRESULT remove_SessionStatusChanged(EventRegistrationToken token) override {
        registrations_.remove(token);
        return S_OK;
    }
    HRESULT Close() override {
        session_.close();
        return S_OK;
    }

  private:
    Closable<platform::GattSession> session_;
    EventRegistrations registrations_;
};

struct CharacteristicsResultSlots : gatt::IGattCharacteristicsResult {
    using Interface = gatt::IGattCharacteristicsResult;
    HRESULT get_ProtocolError(IInspectable**) override { return E_NOTIMPL; }
};

class CharacteristicsResult final : public Object<CharacteristicsResult, CharacteristicsResultSlots> {
  public:
    static constexpr const wchar_t* kClassName =
        L"Windows.Devices.Bluetooth.GenericAttributeProfile.GattCharacteristicsResult";

    explicit CharacteristicsResult(platform::GattCharacteristicsResult result) : result_(std::move(result)) {}

    HRESULT get_Status(gatt::GattCommunicationStatus* out) override {
        *out = static_cast<gatt::GattCommunicationStatus>(result_.status);
        return S_OK;
    }
    HRESULT get_Characteristics(CharacteristicView** out) override {
        return guarded([&] { handOut(result_.characteristics, wrapCharacteristic, out); });
    }

  private:
    const platform::GattCharacteristicsResult result_;
};

struct ServiceSlots : gatt::IGattDeviceService {
    using Interface = gatt::IGattDeviceService;
    HRESULT GetIncludedServices(GUID, ServiceView**) override { return E_NOTIMPL; }
    HRESULT get_DeviceId(HSTRING*) override { return E_NOTIMPL; }
    HRESULT get_AttributeHandle(UINT16*) override { return E_NOTIMPL; }
};

struct Service3Slots : gatt::IGattDeviceService3 {
    using Interface = gatt::IGattDeviceService3;
    HRESULT get_DeviceAccessInformation(IInspectable**) override { return E_NOTIMPL; }
    HRESULT get_SharingMode(INT32*) override { return E_NOTIMPL; }
    HRESULT RequestAccessAsync(IInspectable**) override { return E_NOTIMPL; }
    HRESULT OpenAsync(INT32, IInspectable**) override { return E_NOTIMPL; }
    HRESULT GetCharacteristicsAsync(CharacteristicsOperation**) override { return E_NOTIMPL; }
    HRESULT GetCharacteristicsWithCacheModeAsync(BluetoothCacheMode, CharacteristicsOperation**) override {
        return E_NOTIMPL;
    }
    HRESULT GetCharacteristicsForUuidWithCacheModeAsync(GUID, BluetoothCacheMode,
                                                        CharacteristicsOperation**) override {
        return E_NOTIMPL;
    }
    HRESULT GetIncludedServicesAsync(ServicesOperation**) override { return E_NOTIMPL; }
    HRESULT GetIncludedServicesWithCacheModeAsync(BluetoothCacheMode, ServicesOperation**) override {
        return E_NOTIMPL;
    }
    HRESULT GetIncludedServicesForUuidAsync(GUID, ServicesOperation**) override { return E_NOTIMPL; }
    HRESULT GetIncludedServicesForUuidWithCacheModeAsync(GUID, BluetoothCacheMode,
                                                         ServicesOperation**) override {
        return E_NOTIMPL;
    }
};

class Service final : public Object<Service, ServiceSlots, Service3Slots, IClosable> {
  public:
    static constexpr const wchar_t* kClassName =
        L"Windows.Devices.Bluetooth.GenericAttributeProfile.GattDeviceService";

    explicit Service(std::shared_ptr<platform::GattDeviceService> service) : service_(std::move(service)) {}

    HRESULT QueryInterface(REFIID iid, void** out) override {
        if (iid != __uuidof(gatt::IGattDeviceService3) || !olderWindows())
            return Object::QueryInterface(iid, out);
        *out = nullptr;
        return E_NOINTERFACE;
    }

    HRESULT get_Uuid(GUID* out) override {
        return guarded([&] { *out = toAbi(service_->uuid()); });
    }
    HRESULT GetCharacteristics(GUID uuid, CharacteristicView** out) override {
        *out = nullptr;
        return guarded(
            [&] { handOut(service_->getCharacteristics(fromAbi(uuid)), wrapCharacteristic, out); });
    }

    HRESULT GetCharacteristicsForUuidAsync(GUID uuid, CharacteristicsOperation** out) override {
        const auto convert = [](const auto& result, gatt::IGattCharacteristicsResult** object) {
            handOut(make<CharacteristicsResult>(result), object);
        };
        *out = nullptr;
        return guarded(
            [&] { handOut(service_->getCharacteristicsForUuidAsync(fromAbi(uuid)), convert, out); });
    }
    HRESULT get_Session(gatt::IGattSession** out) override {
        *out = nullptr;
        return guarded([&] { handOut(make<Session>(service_->session()), out); });
    }

    HRESULT Close() override {
        service_.close();
        return S_OK;
    }

  private:
    Closable<platform::GattDeviceService> service_;
};

struct ServicesResultSlots : gatt::IGattDeviceServicesResult {
    using Interface = gatt::IGattDeviceServicesResult;
    HRESULT get_ProtocolError(IInspectable**) override { return E_NOTIMPL; }
};

ComPtr<gatt::IGattDeviceService> wrapService(const std::shared_ptr<platform::GattDeviceService>& service) {
    return ComPtr<gatt::IGattDeviceService>(static_cast<ServiceSlots*>(make<Service>(service).Get()));
}

class ServicesResult final : public Object<ServicesResult, ServicesResultSlots> {
  public:
    static constexpr const wchar_t* kClassName =
        L"Windows.Devices.Bluetooth.GenericAttributeProfile.GattDeviceServicesResult";

    explicit ServicesResult(platform::GattDeviceServicesResult result) : result_(std::move(result)) {}

    HRESULT get_Status(gatt::GattCommunicationStatus* out) override {
        *out = static_cast<gatt::GattCommunicationStatus>(result_.status);
        return S_OK;
    }
    HRESULT get_Services(ServiceView** out) override {
        return guarded([&] { handOut(result_.services, wrapService, out); });
    }

  private:
    const platform::GattDeviceServicesResult result_;
};

}  // namespace

void handOutServices(const ServiceList& services, ServiceView** out) {
    handOut(services, wrapService, out);
}

void handOutServices(platform::AsyncOperationPtr<platform::GattDeviceServicesResult> operation,
                     ServicesOperation** out) {
    const auto convert = [](const auto& result, gatt::IGattDeviceServicesResult** object) {
        handOut(make<ServicesResult>(result), object);
    };
    handOut(std::move(operation), convert, out);
}

}  // namespace provider
