#include "platform/radio.h"

#include <windows.devices.radios.h>

#include "operation.h"

namespace platform {

namespace {

namespace radios = ABI::Windows::Devices::Radios;
using winrt::ComPtr;

class WindowsRadio final : public Radio {
  public:
    explicit WindowsRadio(ComPtr<radios::IRadio> radio) : radio_(std::move(radio)) {}

    std::wstring name() const override { return winrt::textOf(radio_, &radios::IRadio::get_Name); }
    RadioKind kind() const override {
        return static_cast<RadioKind>(winrt::valueOf(radio_, &radios::IRadio::get_Kind));
    }
    RadioState state() const override {
        return static_cast<RadioState>(winrt::valueOf(radio_, &radios::IRadio::get_State));
    }

    AsyncOperationPtr<RadioAccessStatus> setStateAsync(RadioState state) override {
        ComPtr<ABI::Windows::Foundation::IAsyncOperation<radios::RadioAccessStatus>> operation;
        winrt::check(radio_->SetStateAsync(static_cast<radios::RadioState>(state), operation.GetAddressOf()));
        return winrt::makeOperation<RadioAccessStatus>(
            std::move(operation),
            [](radios::RadioAccessStatus status) { return static_cast<RadioAccessStatus>(status); });
    }

  private:
    const ComPtr<radios::IRadio> radio_;
};

}  // namespace

AsyncOperationPtr<RadioList> getRadiosAsync() {
    const auto statics =
        winrt::activationFactory<radios::IRadioStatics>(RuntimeClass_Windows_Devices_Radios_Radio);
    using View = ABI::Windows::Foundation::Collections::IVectorView<radios::Radio*>;
    auto operation = winrt::objectOf(statics, &radios::IRadioStatics::GetRadiosAsync);
    return winrt::makeOperation<RadioList>(std::move(operation), [](const ComPtr<View>& view) -> RadioList {
        if (!view) return std::nullopt;
        return winrt::elementsOf<std::shared_ptr<Radio>>(view, [](ComPtr<radios::IRadio> radio) {
            return std::make_shared<WindowsRadio>(std::move(radio));
        });
    });
}

}  // namespace platform
