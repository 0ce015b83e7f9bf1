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

// What the program has got and not yet released. It keeps the connection to a peripheral up.
struct OpenObjects {
    long services, devices, sessions;
};
OpenObjects openObjects();

}  // namespace provider
