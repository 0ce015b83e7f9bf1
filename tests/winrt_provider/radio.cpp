#include "platform/radio.h"

#include <windows.devices.radios.h>

#include "tests/winrt_provider/provider.h"
#include "tests/winrt_provider/view.h"

namespace provider {

namespace {

namespace radios = ABI::Windows::Devices::Radios;

struct Radio final : View<Radio, std::shared_ptr<platform::Radio>, radios::IRadio> {
    using View::View;

    HRESULT SetStateAsync(radios::RadioState state,
                          IAsyncOperation<radios::RadioAccessStatus>** out) override {
        return show(out, &platform::Radio::setStateAsync, FromAbi{state});
    }
    HRESULT get_State(radios::RadioState* out) override { return show(out, &platform::Radio::state); }
    HRESULT get_Name(HSTRING* out) override { return show(out, &platform::Radio::name); }
    HRESULT get_Kind(radios::RadioKind* out) override { return show(out, &platform::Radio::kind); }
};

struct RadioFactory final : FactoryOf<RadioFactory, radios::IRadioStatics> {
    HRESULT GetRadiosAsync(IAsyncOperation<IVectorView<radios::Radio*>*>** out) override {
        return give<Radio>(out, platform::getRadiosAsync);
    }
};

}  // namespace

ComPtr<IActivationFactory> radioFactory() {
    return make<RadioFactory>();
}

}  // namespace provider
