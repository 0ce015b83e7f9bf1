#include "platform/radio.h"

#include <windows.devices.radios.h>

#include "tests/winrt_provider/async.h"
#include "tests/winrt_provider/provider.h"

namespace provider {

namespace radios = ABI::Windows::Devices::Radios;
using foundation::IAsyncOperation;
using RadioView = foundation::Collections::IVectorView<radios::Radio*>;

template <>
inline constexpr const wchar_t* kOperationName<RadioView*> =
    L"Windows.Foundation.IAsyncOperation`1<Windows.Foundation.Collections.IVectorView`1<Windows.Devices."
    L"Radios.Radio>>";
template <>
inline constexpr const wchar_t* kOperationName<radios::RadioAccessStatus> =
    L"Windows.Foundation.IAsyncOperation`1<Windows.Devices.Radios.RadioAccessStatus>";

namespace {

struct RadioSlots : radios::IRadio {
    using Interface = radios::IRadio;
    HRESULT add_StateChanged(IUnknown*, EventRegistrationToken*) override { return E_NOTIMPL; }
    HRESULT remove_StateChanged(EventRegistrationToken) override { return E_NOTIMPL; }
};

class Radio final : public Object<Radio, RadioSlots> {
  public:
    static constexpr const wchar_t* kClassName = L"Windows.Devices.Radios.Radio";

    explicit Radio(std::shared_ptr<platform::Radio> radio) : radio_(std::move(radio)) {}

    HRESULT SetStateAsync(radios::RadioState state,
                          IAsyncOperation<radios::RadioAccessStatus>** out) override {
        const auto convert = [](platform::RadioAccessStatus status, radios::RadioAccessStatus* result) {
            *result = static_cast<radios::RadioAccessStatus>(status);
        };
        return guarded(
            [&] { handOut(radio_->setStateAsync(static_cast<platform::RadioState>(state)), convert, out); });
    }
    HRESULT get_State(radios::RadioState* out) override {
        return guarded([&] { *out = static_cast<radios::RadioState>(radio_->state()); });
    }
    HRESULT get_Name(HSTRING* out) override {
        return guarded([&] { check(handOut(radio_->name(), out)); });
    }
    HRESULT get_Kind(radios::RadioKind* out) override {
        return guarded([&] { *out = static_cast<radios::RadioKind>(radio_->kind()); });
    }

  private:
    const std::shared_ptr<platform::Radio> radio_;
};

struct RadioStaticsSlots : radios::IRadioStatics {
    using Interface = radios::IRadioStatics;
    HRESULT GetDeviceSelector(HSTRING*) override { return E_NOTIMPL; }
    HRESULT FromIdAsync(HSTRING, IInspectable**) override { return E_NOTIMPL; }
    HRESULT RequestAccessAsync(IAsyncOperation<radios::RadioAccessStatus>**) override { return E_NOTIMPL; }
};

class Factory final : public Object<Factory, StaticsOnly, RadioStaticsSlots> {
  public:
    static constexpr const wchar_t* kClassName = L"Radio factory";

    HRESULT GetRadiosAsync(IAsyncOperation<RadioView*>** out) override {
        const auto convert = [](const platform::RadioList& list, RadioView** result) {
            handOut(
                list, [](const auto& radio) { return make<Radio>(radio); }, result);
        };
        return guarded([&] { handOut(platform::getRadiosAsync(), convert, out); });
    }
};

}  // namespace

ComPtr<IActivationFactory> radioFactory() {
    return make<Factory>();
}

}  // namespace provider
