// Device enumeration and custom pairing.
#include <windows.devices.enumeration.h>

#include "platform/pairing.h"
#include "tests/winrt_provider/events.h"
#include "tests/winrt_provider/provider.h"
#include "tests/winrt_provider/view.h"

namespace provider {

namespace {

namespace enumeration = ABI::Windows::Devices::Enumeration;
using PairingRequestedHandler = foundation::ITypedEventHandler<enumeration::DeviceInformationCustomPairing*,
                                                               enumeration::DevicePairingRequestedEventArgs*>;

// Usable during the callback only.
using Request = platform::DevicePairingRequestedEventArgs;
struct Requested final
    : View<Requested, std::reference_wrapper<Request>, enumeration::IDevicePairingRequestedEventArgs> {
    using View::View;

    HRESULT get_PairingKind(enumeration::DevicePairingKinds* out) override {
        return show(out, &Request::pairingKind);
    }
    HRESULT get_Pin(HSTRING* out) override { return show(out, &Request::pin); }
    HRESULT Accept() override { return call(&Request::accept); }
    HRESULT AcceptWithPin(HSTRING pin) override { return call(&Request::acceptWithPin, textOf(pin)); }
};

struct PairingResult final : View<PairingResult, std::optional<platform::DevicePairingResultStatus>,
                                  enumeration::IDevicePairingResult> {
    using View::View;

    HRESULT get_Status(enumeration::DevicePairingResultStatus* out) override {
        return give(out, [&] { return *shown_; });
    }
};

using Custom = platform::DeviceInformationCustomPairing;
struct CustomPairing final
    : View<CustomPairing, std::shared_ptr<Custom>, enumeration::IDeviceInformationCustomPairing> {
    using View::View;

    HRESULT PairWithProtectionLevelAsync(enumeration::DevicePairingKinds kinds,
                                         enumeration::DevicePairingProtectionLevel level,
                                         IAsyncOperation<enumeration::DevicePairingResult*>** out) override {
        return show<PairingResult>(out, &Custom::pairAsync, FromAbi{kinds}, FromAbi{level});
    }
    HRESULT add_PairingRequested(PairingRequestedHandler* handler, Token* out) override {
        const auto tell = [this, handler = ComPtr<PairingRequestedHandler>(handler)](auto& args) {
            if (const auto sender = self()) check(handler->Invoke(sender.Get(), make<Requested>(args).Get()));
        };
        return handlers_.add(out, [&] { return shown_->onPairingRequested(tell); });
    }
    HRESULT remove_PairingRequested(Token token) override { return handlers_.remove(token); }

  private:
    Registrations handlers_;
};

using SeamPairing = platform::DeviceInformationPairing;
struct Pairing final : View<Pairing, std::shared_ptr<SeamPairing>, enumeration::IDeviceInformationPairing,
                            enumeration::IDeviceInformationPairing2> {
    using View::View;

    // On a Windows without custom pairing the whole interface is missing.
    bool offers(REFIID iid) const {
        return iid != __uuidof(enumeration::IDeviceInformationPairing2) || shown_->custom();
    }
    HRESULT get_IsPaired(boolean* out) override { return show(out, &SeamPairing::isPaired); }
    HRESULT get_CanPair(boolean* out) override { return show(out, &SeamPairing::canPair); }
    HRESULT get_Custom(enumeration::IDeviceInformationCustomPairing** out) override {
        return show<CustomPairing>(out, &SeamPairing::custom);
    }
};

struct Information final : View<Information, std::shared_ptr<platform::DeviceInformation>,
                                enumeration::IDeviceInformation, enumeration::IDeviceInformation2> {
    using View::View;

    HRESULT get_Id(HSTRING* out) override { return show(out, &platform::DeviceInformation::id); }
    HRESULT get_Pairing(enumeration::IDeviceInformationPairing** out) override {
        return show<Pairing>(out, &platform::DeviceInformation::pairing);
    }
};

struct InformationFactory final : FactoryOf<InformationFactory, enumeration::IDeviceInformationStatics> {
    HRESULT FindAllAsyncAqsFilter(HSTRING filter,
                                  IAsyncOperation<enumeration::DeviceInformationCollection*>** out) override {
        return give<Information>(out, [&] { return platform::findAllDevicesAsync(textOf(filter)); });
    }
};

}  // namespace

ComPtr<IActivationFactory> deviceInformationFactory() {
    return make<InformationFactory>();
}

}  // namespace provider
