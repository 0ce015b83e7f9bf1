#include "platform/radio.h"

#include <windows.devices.radios.h>

#include "operation.h"

namespace platform {

namespace {

namespace abi = ABI::Windows::Devices::Radios;
using winrt::ComPtr;

class WindowsRadio final : public Radio {
  public:
    explicit WindowsRadio(ComPtr<abi::IRadio> radio) : radio_(std::move(radio)) {}

    std::wstring name() const override { return winrt::textOf(radio_, &abi::IRadio::get_Name); }
    RadioKind kind() const override {
        return static_cast<RadioKind>(winrt::valueOf(radio_, &abi::IRadio::get_Kind));
    }
    RadioState state() const override {
        return static_cast<RadioState>(winrt::valueOf(radio_, &abi::IRadio::get_State));
    }

    AsyncOperationPtr<RadioAccessStatus> setStateAsync(RadioState state) override {
        ComPtr<ABI::Windows::Foundation::IAsyncOperation<abi::RadioAccessStatus>> operation;
        winrt::check(radio_->SetStateAsync(static_cast<abi::RadioState>(state), operation.GetAddressOf()));
        return winrt::makeOperation<RadioAccessStatus>(
            std::move(operation),
            [](abi::RadioAccessStatus status) { return static_cast<RadioAccessStatus>(status); });
    }

  private:
    const ComPtr<abi::IRadio> radio_;
};

}  // namespace

AsyncOperationPtr<RadioList> getRadiosAsync() {
    const auto radios =
        winrt::activationFactory<abi::IRadioStatics>(RuntimeClass_Windows_Devices_Radios_Radio);
    using View = ABI::Windows::Foundation::Collections::IVectorView<abi::Radio*>;
    auto operation = winrt::objectOf(radios, &abi::IRadioStatics::GetRadiosAsync);
    return winrt::makeOperation<RadioList>(std::move(operation), [](const ComPtr<View>& view) -> RadioList {
        if (!view) return std::nullopt;
        return winrt::elementsOf<std::shared_ptr<Radio>>(
            view, [](ComPtr<abi::IRadio> radio) { return std::make_shared<WindowsRadio>(std::move(radio)); });
    });
}

}  // namespace platform
