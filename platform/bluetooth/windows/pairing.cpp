#include "platform/pairing.h"

#include <windows.devices.enumeration.h>

#include "event_handler.h"
#include "operation.h"

namespace platform {

namespace {

namespace enumeration = ABI::Windows::Devices::Enumeration;
using ABI::Windows::Foundation::IAsyncOperation;
using winrt::ComPtr;

class WindowsPairingRequest final : public DevicePairingRequestedEventArgs {
  public:
    explicit WindowsPairingRequest(enumeration::IDevicePairingRequestedEventArgs* args) : args_(args) {}

    DevicePairingKinds pairingKind() const override {
        return static_cast<DevicePairingKinds>(
            winrt::valueOf(args_, &enumeration::IDevicePairingRequestedEventArgs::get_PairingKind));
    }
    std::wstring pin() const override {
        return winrt::textOf(args_, &enumeration::IDevicePairingRequestedEventArgs::get_Pin);
    }
    void accept() override { winrt::check(args_->Accept()); }
    void acceptWithPin(const std::wstring& pin) override {
        winrt::check(args_->AcceptWithPin(winrt::RuntimeString(pin).get()));
    }

  private:
    const ComPtr<enumeration::IDevicePairingRequestedEventArgs> args_;
};

class WindowsCustomPairing final : public DeviceInformationCustomPairing {
  public:
    explicit WindowsCustomPairing(ComPtr<enumeration::IDeviceInformationCustomPairing> pairing)
        : pairing_(std::move(pairing)) {}

    Subscription onPairingRequested(PairingRequestedHandler handler) override {
        using Args = enumeration::IDevicePairingRequestedEventArgs;
        return winrt::subscribe<enumeration::IDeviceInformationCustomPairing, Args>(
            pairing_, &enumeration::IDeviceInformationCustomPairing::add_PairingRequested,
            &enumeration::IDeviceInformationCustomPairing::remove_PairingRequested,
            [handler = std::move(handler)](enumeration::IDeviceInformationCustomPairing*, Args* args) {
                if (!args) return;
                WindowsPairingRequest request(args);
                handler(request);
            });
    }

    AsyncOperationPtr<std::optional<DevicePairingResultStatus>> pairAsync(
        DevicePairingKinds kinds, DevicePairingProtectionLevel minimumLevel) override {
        ComPtr<IAsyncOperation<enumeration::DevicePairingResult*>> operation;
        winrt::check(pairing_->PairWithProtectionLevelAsync(
            static_cast<enumeration::DevicePairingKinds>(kinds),
            static_cast<enumeration::DevicePairingProtectionLevel>(minimumLevel), operation.GetAddressOf()));
        using Result = std::optional<DevicePairingResultStatus>;
        return winrt::makeOperation<Result>(
            std::move(operation), [](const ComPtr<enumeration::IDevicePairingResult>& result) -> Result {
                if (!result) return std::nullopt;
                return static_cast<DevicePairingResultStatus>(
                    winrt::valueOf(result, &enumeration::IDevicePairingResult::get_Status));
            });
    }

  private:
    const ComPtr<enumeration::IDeviceInformationCustomPairing> pairing_;
};

class WindowsPairing final : public DeviceInformationPairing {
  public:
    explicit WindowsPairing(ComPtr<enumeration::IDeviceInformationPairing> pairing)
        : pairing_(std::move(pairing)) {}

    bool isPaired() const override {
        return winrt::valueOf(pairing_, &enumeration::IDeviceInformationPairing::get_IsPaired) != 0;
    }
    bool canPair() const override {
        return winrt::valueOf(pairing_, &enumeration::IDeviceInformationPairing::get_CanPair) != 0;
    }
    // Looked for: custom pairing came later than pairing.
    std::shared_ptr<DeviceInformationCustomPairing> custom() override {
        ComPtr<enumeration::IDeviceInformationPairing2> newer;
        if (FAILED(pairing_.As(&newer))) return nullptr;
        auto custom = winrt::objectOf(newer, &enumeration::IDeviceInformationPairing2::get_Custom);
        if (!custom) return nullptr;
        return std::make_shared<WindowsCustomPairing>(std::move(custom));
    }

  private:
    const ComPtr<enumeration::IDeviceInformationPairing> pairing_;
};

class WindowsDeviceInformation final : public DeviceInformation {
  public:
    explicit WindowsDeviceInformation(ComPtr<enumeration::IDeviceInformation> device)
        : device_(std::move(device)) {}

    std::wstring id() const override {
        return winrt::textOf(device_, &enumeration::IDeviceInformation::get_Id);
    }
    std::shared_ptr<DeviceInformationPairing> pairing() override {
        auto pairing = winrt::objectOf(winrt::query<enumeration::IDeviceInformation2>(device_),
                                       &enumeration::IDeviceInformation2::get_Pairing);
        if (!pairing) throw PlatformError(kEFail);
        return std::make_shared<WindowsPairing>(std::move(pairing));
    }

  private:
    const ComPtr<enumeration::IDeviceInformation> device_;
};

}  // namespace

AsyncOperationPtr<DeviceInformationCollection> findAllDevicesAsync(const std::wstring& selector) {
    const auto devices = winrt::activationFactory<enumeration::IDeviceInformationStatics>(
        RuntimeClass_Windows_Devices_Enumeration_DeviceInformation);
    ComPtr<IAsyncOperation<enumeration::DeviceInformationCollection*>> operation;
    winrt::check(
        devices->FindAllAsyncAqsFilter(winrt::RuntimeString(selector).get(), operation.GetAddressOf()));
    using View = ABI::Windows::Foundation::Collections::IVectorView<enumeration::DeviceInformation*>;
    return winrt::makeOperation<DeviceInformationCollection>(
        std::move(operation), [](const ComPtr<View>& view) -> DeviceInformationCollection {
            if (!view) return std::nullopt;
            return winrt::elementsOf<std::shared_ptr<DeviceInformation>>(
                view, [](ComPtr<enumeration::IDeviceInformation> device) {
                    return std::make_shared<WindowsDeviceInformation>(std::move(device));
                });
        });
}

}  // namespace platform
