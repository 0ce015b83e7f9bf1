// Device enumeration and custom pairing.
#include <windows.devices.enumeration.h>

#include "platform/pairing.h"
#include "tests/winrt_provider/async.h"
#include "tests/winrt_provider/events.h"
#include "tests/winrt_provider/provider.h"

namespace provider {

namespace {

namespace enumeration = ABI::Windows::Devices::Enumeration;
using PairingRequestedHandler = foundation::ITypedEventHandler<enumeration::DeviceInformationCustomPairing*,
                                                               enumeration::DevicePairingRequestedEventArgs*>;

// Usable during the callback only.
class Requested final : public Object<Requested, enumeration::IDevicePairingRequestedEventArgs> {
  public:
    explicit Requested(platform::DevicePairingRequestedEventArgs& args) : args_(args) {}

    HRESULT get_PairingKind(enumeration::DevicePairingKinds* out) override {
        return give(out, [&] { return args_.pairingKind(); });
    }
    HRESULT get_Pin(HSTRING* out) override {
        return give(out, [&] { return args_.pin(); });
    }
    HRESULT Accept() override {
        return guarded([&] { args_.accept(); });
    }
    HRESULT AcceptWithPin(HSTRING pin) override {
        return guarded([&] { args_.acceptWithPin(textOf(pin)); });
    }

  private:
    platform::DevicePairingRequestedEventArgs& args_;
};

class PairingResult final : public Object<PairingResult, enumeration::IDevicePairingResult> {
  public:
    explicit PairingResult(platform::DevicePairingResultStatus status) : status_(status) {}

    HRESULT get_Status(enumeration::DevicePairingResultStatus* out) override {
        return give(out, [&] { return status_; });
    }

  private:
    const platform::DevicePairingResultStatus status_;
};

class CustomPairing final : public Object<CustomPairing, enumeration::IDeviceInformationCustomPairing> {
  public:
    explicit CustomPairing(std::shared_ptr<platform::DeviceInformationCustomPairing> pairing)
        : pairing_(std::move(pairing)) {}

    HRESULT PairWithProtectionLevelAsync(enumeration::DevicePairingKinds kinds,
                                         enumeration::DevicePairingProtectionLevel level,
                                         IAsyncOperation<enumeration::DevicePairingResult*>** out) override {
        return give(out, [&] {
            return wrap<enumeration::DevicePairingResult*>(
                pairing_->pairAsync(static_cast<platform::DevicePairingKinds>(kinds),
                                    static_cast<platform::DevicePairingProtectionLevel>(level)),
                [](const auto& outcome) { return outcome ? make<PairingResult>(*outcome) : nullptr; });
        });
    }

    HRESULT add_PairingRequested(PairingRequestedHandler* handler, EventRegistrationToken* out) override {
        const auto tell = [this, handler = ComPtr<PairingRequestedHandler>(handler)](auto& args) {
            if (const auto sender = self()) check(handler->Invoke(sender.Get(), make<Requested>(args).Get()));
        };
        return registrations_.add(out, [&] { return pairing_->onPairingRequested(tell); });
    }
    HRESULT remove_PairingRequested(EventRegistrationToken token) override {
        return registrations_.remove(token);
    }

  private:
    const std::shared_ptr<platform::DeviceInformationCustomPairing> pairing_;
    EventRegistrations registrations_;
};

class Pairing final : public Object<Pairing, enumeration::IDeviceInformationPairing,
                                    enumeration::IDeviceInformationPairing2> {
  public:
    explicit Pairing(std::shared_ptr<platform::DeviceInformationPairing> pairing)
        : pairing_(std::move(pairing)) {}

    // On a Windows without custom pairing the whole interface is missing.
    bool offers(REFIID iid) const {
        return iid != __uuidof(enumeration::IDeviceInformationPairing2) || pairing_->custom();
    }

    HRESULT get_IsPaired(boolean* out) override {
        return give(out, [&] { return pairing_->isPaired(); });
    }
    HRESULT get_CanPair(boolean* out) override {
        return give(out, [&] { return pairing_->canPair(); });
    }
    HRESULT get_Custom(enumeration::IDeviceInformationCustomPairing** out) override {
        return give(out, [&] { return make<CustomPairing>(pairing_->custom()); });
    }

  private:
    const std::shared_ptr<platform::DeviceInformationPairing> pairing_;
};

class Information final
    : public Object<Information, enumeration::IDeviceInformation, enumeration::IDeviceInformation2> {
  public:
    explicit Information(std::shared_ptr<platform::DeviceInformation> information)
        : information_(std::move(information)) {}

    HRESULT get_Id(HSTRING* out) override {
        return give(out, [&] { return information_->id(); });
    }
    HRESULT get_Pairing(enumeration::IDeviceInformationPairing** out) override {
        return give(out, [&] { return make<Pairing>(information_->pairing()); });
    }

  private:
    const std::shared_ptr<platform::DeviceInformation> information_;
};

class InformationFactory final
    : public FactoryOf<InformationFactory, enumeration::IDeviceInformationStatics> {
  public:
    HRESULT FindAllAsyncAqsFilter(HSTRING filter,
                                  IAsyncOperation<enumeration::DeviceInformationCollection*>** out) override {
        return give(out, [&] {
            return wrap<enumeration::DeviceInformationCollection*>(
                platform::findAllDevicesAsync(textOf(filter)), [](const auto& found) {
                    return viewOf<enumeration::DeviceInformation*, Information>(found);
                });
        });
    }
};

}  // namespace

ComPtr<IActivationFactory> deviceInformationFactory() {
    return make<InformationFactory>();
}

}  // namespace provider
