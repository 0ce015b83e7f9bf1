#include "platform/radio.h"

#include <windows.devices.radios.h>

#include "tests/winrt_provider/async.h"
#include "tests/winrt_provider/provider.h"

namespace provider {

namespace {

namespace radios = ABI::Windows::Devices::Radios;
using RadioView = IVectorView<radios::Radio*>;

class Radio final : public Object<Radio, radios::IRadio> {
  public:
    explicit Radio(std::shared_ptr<platform::Radio> radio) : radio_(std::move(radio)) {}

    HRESULT SetStateAsync(radios::RadioState state,
                          IAsyncOperation<radios::RadioAccessStatus>** out) override {
        return give(out, [&] {
            return wrap<radios::RadioAccessStatus>(
                radio_->setStateAsync(static_cast<platform::RadioState>(state)));
        });
    }
    HRESULT get_State(radios::RadioState* out) override {
        return give(out, [&] { return radio_->state(); });
    }
    HRESULT get_Name(HSTRING* out) override {
        return give(out, [&] { return radio_->name(); });
    }
    HRESULT get_Kind(radios::RadioKind* out) override {
        return give(out, [&] { return radio_->kind(); });
    }

  private:
    const std::shared_ptr<platform::Radio> radio_;
};

class RadioFactory final : public FactoryOf<RadioFactory, radios::IRadioStatics> {
  public:
    HRESULT GetRadiosAsync(IAsyncOperation<RadioView*>** out) override {
        const auto convert = [](const auto& list) { return viewOf<radios::Radio*, Radio>(list); };
        return give(out, [&] { return wrap<RadioView*>(platform::getRadiosAsync(), convert); });
    }
};

}  // namespace

ComPtr<IActivationFactory> radioFactory() {
    return make<RadioFactory>();
}

}  // namespace provider
