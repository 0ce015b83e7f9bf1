// Device enumeration and custom pairing.
#include <windows.devices.enumeration.h>

#include <mutex>

#include "platform/pairing.h"
#include "tests/winrt_provider/async.h"
#include "tests/winrt_provider/events.h"
#include "tests/winrt_provider/provider.h"

namespace provider {

namespace enumeration = ABI::Windows::Devices::Enumeration;
using CollectionOperation = foundation::IAsyncOperation<enumeration::DeviceInformationCollection*>;
using PairingOperation = foundation::IAsyncOperation<enumeration::DevicePairingResult*>;
using InformationView = foundation::Collections::IVectorView<enumeration::DeviceInformation*>;
using Strings = foundation::Collections::IIterable<HSTRING>;
using PairingRequestedHandler = foundation::ITypedEventHandler<enumeration::DeviceInformationCustomPairing*,
                                                               enumeration::DevicePairingRequestedEventArgs*>;

template <>
inline constexpr const wchar_t* kOperationName<enumeration::DeviceInformationCollection*> =
    L"Windows.Foundation.IAsyncOperation`1<Windows.Devices.Enumeration.DeviceInformationCollection>";
template <>
inline constexpr const wchar_t* kOperationName<enumeration::DevicePairingResult*> =
    L"Windows.Foundation.IAsyncOperation`1<Windows.Devices.Enumeration.DevicePairingResult>";

namespace {

struct RequestedSlots : enumeration::IDevicePairingRequestedEventArgs {
    using Interface = enumeration::IDevicePairingRequestedEventArgs;
    HRESULT get_DeviceInformation(enumeration::IDeviceInformation**) override { return E_NOTIMPL; }
    HRESULT GetDeferral(IInspectable**) override { return E_NOTIMPL; }
};

// Usable during the callback only, even if the program keeps a reference to it.
class Requested final : public Object<Requested, RequestedSlots> {
  public:
    static constexpr const wchar_t* kClassName =
        L"Windows.Devices.Enumeration.DevicePairingRequestedEventArgs";
    using Args = platform::DevicePairingRequestedEventArgs;

    explicit Requested(Args& args) : args_(&args) {}
    void end() {
        const std::lock_guard lock(mutex_);
        args_ = nullptr;
    }

    HRESULT get_PairingKind(enumeration::DevicePairingKinds* out) override {
        return during(
            [&](Args& args) { *out = static_cast<enumeration::DevicePairingKinds>(args.pairingKind()); });
    }
    HRESULT get_Pin(HSTRING* out) override {
        return during([&](Args& args) { check(handOut(args.pin(), out)); });
    }
    HRESULT Accept() override {
        return during([](Args& args) { args.accept(); });
    }
    HRESULT AcceptWithPin(HSTRING pin) override {
        return during([&](Args& args) { args.acceptWithPin(textOf(pin)); });
    }

  private:
    template <class Body>
    HRESULT during(const Body& body) {
        const std::lock_guard lock(mutex_);
        return args_ ? guarded([&] { body(*args_); }) : platform::kRoEClosed;
    }

    std::mutex mutex_;
    Args* args_;  // guarded by mutex_
};

class PairingResult final : public Object<PairingResult, enumeration::IDevicePairingResult> {
  public:
    static constexpr const wchar_t* kClassName = L"Windows.Devices.Enumeration.DevicePairingResult";

    explicit PairingResult(platform::DevicePairingResultStatus status) : status_(status) {}

    HRESULT get_Status(enumeration::DevicePairingResultStatus* out) override {
        *out = static_cast<enumeration::DevicePairingResultStatus>(status_);
        return S_OK;
    }
    HRESULT get_ProtectionLevelUsed(enumeration::DevicePairingProtectionLevel*) override { return E_NOTIMPL; }

  private:
    const platform::DevicePairingResultStatus status_;
};

struct CustomPairingSlots : enumeration::IDeviceInformationCustomPairing {
    using Interface = enumeration::IDeviceInformationCustomPairing;
    HRESULT PairWithProtectionLevelAndSettingsAsync(enumeration::DevicePairingKinds,
                                                    enumeration::DevicePairingProtectionLevel, IInspectable*,
                                                    PairingOperation**) override {
        return E_NOTIMPL;
    }
};

class CustomPairing final : public Object<CustomPairing, CustomPairingSlots> {
  public:
    static constexpr const wchar_t* kClassName =
        L"Windows.Devices.Enumeration.DeviceInformationCustomPairing";

    explicit CustomPairing(std::shared_ptr<platform::DeviceInformationCustomPairing> pairing)
        : pairing_(std::move(pairing)) {}

    HRESULT PairAsync(enumeration::DevicePairingKinds kinds, PairingOperation** out) override {
        return PairWithProtectionLevelAsync(kinds, enumeration::DevicePairingProtectionLevel_Default, out);
    }
    HRESULT PairWithProtectionLevelAsync(enumeration::DevicePairingKinds kinds,
                                         enumeration::DevicePairingProtectionLevel level,
                                         PairingOperation** out) override {
        const auto convert = [](const auto& outcome, enumeration::IDevicePairingResult** object) {
            if (outcome) handOut(make<PairingResult>(*outcome), object);
        };
        *out = nullptr;
        return guarded([&] {
            handOut(pairing_->pairAsync(static_cast<platform::DevicePairingKinds>(kinds),
                                        static_cast<platform::DevicePairingProtectionLevel>(level)),
                    convert, out);
        });
    }

    HRESULT add_PairingRequested(PairingRequestedHandler* handler, EventRegistrationToken* out) override {
        const auto tell = [this, handler = ComPtr<PairingRequestedHandler>(handler)](
                              platform::DevicePairingRequestedEventArgs& args) {
            const auto sender = self();
            const auto request = make<Requested>(args);
            const HRESULT result = sender ? handler->Invoke(sender.Get(), request.Get()) : S_OK;
            request->end();
            check(result);
        };
        return guarded([&] { *out = registrations_.add(pairing_->onPairingRequested(tell)); });
    }
    HRESULT remove_PairingRequested(EventRegistrationToken token) override {
        registrations_.remove(token);
        return S_OK;
    }

  private:
    const std::shared_ptr<platform::DeviceInformationCustomPairing> pairing_;
    EventRegistrations registrations_;
};

struct PairingSlots : enumeration::IDeviceInformationPairing {
    using Interface = enumeration::IDeviceInformationPairing;
    HRESULT PairAsync(PairingOperation**) override { return E_NOTIMPL; }
    HRESULT PairWithProtectionLevelAsync(enumeration::DevicePairingProtectionLevel,
                                         PairingOperation**) override {
        return E_NOTIMPL;
    }
};

struct Pairing2Slots : enumeration::IDeviceInformationPairing2 {
    using Interface = enumeration::IDeviceInformationPairing2;
    HRESULT get_ProtectionLevel(enumeration::DevicePairingProtectionLevel*) override { return E_NOTIMPL; }
    HRESULT PairWithProtectionLevelAndSettingsAsync(enumeration::DevicePairingProtectionLevel, IInspectable*,
                                                    PairingOperation**) override {
        return E_NOTIMPL;
    }
    HRESULT UnpairAsync(IInspectable**) override { return E_NOTIMPL; }
};

class Pairing final : public Object<Pairing, PairingSlots, Pairing2Slots> {
  public:
    static constexpr const wchar_t* kClassName = L"Windows.Devices.Enumeration.DeviceInformationPairing";

    explicit Pairing(std::shared_ptr<platform::DeviceInformationPairing> pairing)
        : pairing_(std::move(pairing)) {}

    // On a Windows without custom pairing the whole interface is missing.
    HRESULT QueryInterface(REFIID iid, void** out) override {
        if (iid != __uuidof(enumeration::IDeviceInformationPairing2) || pairing_->custom())
            return Object::QueryInterface(iid, out);
        *out = nullptr;
        return E_NOINTERFACE;
    }

    HRESULT get_IsPaired(boolean* out) override {
        return guarded([&] { *out = pairing_->isPaired(); });
    }
    HRESULT get_CanPair(boolean* out) override {
        return guarded([&] { *out = pairing_->canPair(); });
    }
    HRESULT get_Custom(enumeration::IDeviceInformationCustomPairing** out) override {
        *out = nullptr;
        return guarded([&] { handOut(make<CustomPairing>(pairing_->custom()), out); });
    }

  private:
    const std::shared_ptr<platform::DeviceInformationPairing> pairing_;
};

struct InformationSlots : enumeration::IDeviceInformation {
    using Interface = enumeration::IDeviceInformation;
    HRESULT get_Name(HSTRING*) override { return E_NOTIMPL; }
    HRESULT get_IsEnabled(boolean*) override { return E_NOTIMPL; }
    HRESULT get_IsDefault(boolean*) override { return E_NOTIMPL; }
    HRESULT get_EnclosureLocation(IInspectable**) override { return E_NOTIMPL; }
    HRESULT get_Properties(IInspectable**) override { return E_NOTIMPL; }
    HRESULT Update(IInspectable*) override { return E_NOTIMPL; }
    HRESULT GetThumbnailAsync(IInspectable**) override { return E_NOTIMPL; }
    HRESULT GetGlyphThumbnailAsync(IInspectable**) override { return E_NOTIMPL; }
};

struct Information2Slots : enumeration::IDeviceInformation2 {
    using Interface = enumeration::IDeviceInformation2;
    HRESULT get_Kind(INT32*) override { return E_NOTIMPL; }
};

class Information final : public Object<Information, InformationSlots, Information2Slots> {
  public:
    static constexpr const wchar_t* kClassName = L"Windows.Devices.Enumeration.DeviceInformation";

    explicit Information(std::shared_ptr<platform::DeviceInformation> information)
        : information_(std::move(information)) {}

    HRESULT get_Id(HSTRING* out) override {
        return guarded([&] { check(handOut(information_->id(), out)); });
    }
    HRESULT get_Pairing(enumeration::IDeviceInformationPairing** out) override {
        *out = nullptr;
        return guarded(
            [&] { *out = static_cast<PairingSlots*>(make<Pairing>(information_->pairing()).Detach()); });
    }

  private:
    const std::shared_ptr<platform::DeviceInformation> information_;
};

struct StaticsSlots : enumeration::IDeviceInformationStatics {
    using Interface = enumeration::IDeviceInformationStatics;
    HRESULT CreateFromIdAsync(HSTRING, IInspectable**) override { return E_NOTIMPL; }
    HRESULT CreateFromIdAsyncAdditionalProperties(HSTRING, Strings*, IInspectable**) override {
        return E_NOTIMPL;
    }
    HRESULT FindAllAsync(CollectionOperation**) override { return E_NOTIMPL; }
    HRESULT FindAllAsyncDeviceClass(INT32, CollectionOperation**) override { return E_NOTIMPL; }
    HRESULT FindAllAsyncAqsFilterAndAdditionalProperties(HSTRING, Strings*, CollectionOperation**) override {
        return E_NOTIMPL;
    }
    HRESULT CreateWatcher(IInspectable**) override { return E_NOTIMPL; }
    HRESULT CreateWatcherDeviceClass(INT32, IInspectable**) override { return E_NOTIMPL; }
    HRESULT CreateWatcherAqsFilter(HSTRING, IInspectable**) override { return E_NOTIMPL; }
    HRESULT CreateWatcherAqsFilterAndAdditionalProperties(HSTRING, Strings*, IInspectable**) override {
        return E_NOTIMPL;
    }
};

class Factory final : public Object<Factory, StaticsOnly, StaticsSlots> {
  public:
    static constexpr const wchar_t* kClassName = L"DeviceInformation factory";

    HRESULT FindAllAsyncAqsFilter(HSTRING filter, CollectionOperation** out) override {
        const auto wrap = [](const auto& information) {
            return ComPtr<enumeration::IDeviceInformation>(
                static_cast<InformationSlots*>(make<Information>(information).Get()));
        };
        const auto convert = [wrap](const platform::DeviceInformationCollection& found,
                                    InformationView** result) { handOut(found, wrap, result); };
        *out = nullptr;
        return guarded([&] { handOut(platform::findAllDevicesAsync(textOf(filter)), convert, out); });
    }
};

}  // namespace

ComPtr<IActivationFactory> deviceInformationFactory() {
    return make<Factory>();
}

}  // namespace provider
