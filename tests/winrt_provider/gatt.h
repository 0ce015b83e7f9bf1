// Shows the services of a device through the binary interface.
#pragma once

#include <windows.devices.bluetooth.genericattributeprofile.h>

#include <optional>

#include "platform/gatt.h"
#include "tests/winrt_provider/async.h"

namespace provider {

namespace gatt = ABI::Windows::Devices::Bluetooth::GenericAttributeProfile;
using ServiceView = foundation::Collections::IVectorView<gatt::GattDeviceService*>;
using ServiceList = std::vector<std::shared_ptr<platform::GattDeviceService>>;

template <>
inline constexpr const wchar_t* kOperationName<gatt::GattDeviceServicesResult*> =
    L"Windows.Foundation.IAsyncOperation`1<"
    L"Windows.Devices.Bluetooth.GenericAttributeProfile.GattDeviceServicesResult>";
template <>
inline constexpr const wchar_t* kOperationName<gatt::GattCharacteristicsResult*> =
    L"Windows.Foundation.IAsyncOperation`1<"
    L"Windows.Devices.Bluetooth.GenericAttributeProfile.GattCharacteristicsResult>";
template <>
inline constexpr const wchar_t* kOperationName<gatt::GattCommunicationStatus> =
    L"Windows.Foundation.IAsyncOperation`1<"
    L"Windows.Devices.Bluetooth.GenericAttributeProfile.GattCommunicationStatus>";

void handOutServices(const ServiceList& services, ServiceView** out);
void handOutServices(platform::AsyncOperationPtr<platform::GattDeviceServicesResult> operation,
                     foundation::IAsyncOperation<gatt::GattDeviceServicesResult*>** out);

}  // namespace provider
