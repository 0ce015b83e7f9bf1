// Services and characteristics of the Windows Runtime.
#pragma once

#include <windows.devices.bluetooth.genericattributeprofile.h>

#include <memory>
#include <optional>
#include <vector>

#include "operation.h"
#include "platform/gatt.h"

namespace platform::winrt {

using GattServiceView = ABI::Windows::Foundation::Collections::IVectorView<
    ABI::Windows::Devices::Bluetooth::GenericAttributeProfile::GattDeviceService*>;

// Empty where there is no list.
std::vector<std::shared_ptr<GattDeviceService>> servicesOf(const ComPtr<GattServiceView>& view);

AsyncOperationPtr<GattDeviceServicesResult> makeServicesOperation(
    ComPtr<ABI::Windows::Foundation::IAsyncOperation<
        ABI::Windows::Devices::Bluetooth::GenericAttributeProfile::GattDeviceServicesResult*>>
        operation);

}  // namespace platform::winrt
