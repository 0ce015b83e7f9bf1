// The activation factories, one for each class that can be activated or has static methods.
#pragma once

#include "tests/winrt_provider/object.h"

namespace provider {

ComPtr<IActivationFactory> advertisementWatcherFactory();
ComPtr<IActivationFactory> bluetoothLEDeviceFactory();
ComPtr<IActivationFactory> dataReaderFactory();
ComPtr<IActivationFactory> dataWriterFactory();
ComPtr<IActivationFactory> deviceInformationFactory();
ComPtr<IActivationFactory> radioFactory();

// The factory of a class that has static methods only.
struct StaticsOnly : IActivationFactory {
    using Interface = IActivationFactory;
    HRESULT ActivateInstance(IInspectable** out) override {
        *out = nullptr;
        return E_NOTIMPL;
    }
};

}  // namespace provider
