// The identifiers of the generic interfaces. The program and the provider are compiled against the same
// headers and would agree on a wrong identifier, so these are compared with the platform's public metadata.
#include <gtest/gtest.h>
#include <windows.devices.bluetooth.advertisement.h>
#include <windows.devices.bluetooth.genericattributeprofile.h>
#include <windows.devices.bluetooth.h>
#include <windows.devices.enumeration.h>
#include <windows.devices.radios.h>

#include <bit>

#include "platform/guid.h"

namespace {

using namespace ABI::Windows::Devices::Bluetooth;
using namespace ABI::Windows::Devices::Bluetooth::Advertisement;
using namespace ABI::Windows::Devices::Bluetooth::GenericAttributeProfile;
using namespace ABI::Windows::Devices::Enumeration;
using namespace ABI::Windows::Devices::Radios;
using ABI::Windows::Foundation::IAsyncOperation;
using ABI::Windows::Foundation::ITypedEventHandler;
using ABI::Windows::Foundation::Collections::IVector;
using ABI::Windows::Foundation::Collections::IVectorView;

TEST(WindowsRuntimeInterfaces, HaveThePlatformsIdentifiers) {
    using Received =
        ITypedEventHandler<BluetoothLEAdvertisementWatcher*, BluetoothLEAdvertisementReceivedEventArgs*>;
    using StatusChanged = ITypedEventHandler<GattSession*, GattSessionStatusChangedEventArgs*>;
    using ValueChanged = ITypedEventHandler<GattCharacteristic*, GattValueChangedEventArgs*>;
    using PairingRequested =
        ITypedEventHandler<DeviceInformationCustomPairing*, DevicePairingRequestedEventArgs*>;
    const struct {
        GUID id;
        const char* expected;
    } cases[] = {
        {__uuidof(IVectorView<Radio*>), "{65066C36-090B-5466-B8E5-E7565DC34175}"},
        {__uuidof(IAsyncOperation<IVectorView<Radio*>*>), "{040B54A1-203E-58F5-943F-C1CCA86BD532}"},
        {__uuidof(IAsyncOperation<RadioAccessStatus>), "{21FB30EF-072F-502C-9898-D0C3B2CD9AC5}"},
        {__uuidof(IAsyncOperation<BluetoothLEDevice*>), "{375F9D67-74A2-5F91-A11D-169093718D41}"},
        {__uuidof(IAsyncOperation<GattDeviceServicesResult*>), "{E7C667F6-E874-500F-86FF-760CA6F07A58}"},
        {__uuidof(IAsyncOperation<GattCharacteristicsResult*>), "{0972194A-AC1C-5536-9886-27E58A18F273}"},
        {__uuidof(IVectorView<GattDeviceService*>), "{7C8E7FDD-A1A1-528A-81D1-296769227A08}"},
        {__uuidof(IVectorView<GattCharacteristic*>), "{CB3AB3AE-B561-504F-A808-599DECEB2DF4}"},
        {__uuidof(IAsyncOperation<GattCommunicationStatus>), "{3FF69516-1BFB-52E9-9EE6-E5CDB78E1683}"},
        {__uuidof(ValueChanged), "{C1F420F6-6292-5760-A2C9-9DDF98683CFC}"},
        {__uuidof(StatusChanged), "{0E1210F2-7B6F-543E-8ADB-A61D34AB535D}"},
        {__uuidof(Received), "{90EB4ECA-D465-5EA0-A61C-033C8C5ECEF2}"},
        {__uuidof(IVector<GUID>), "{482E676D-B913-5EC1-AFA8-5F96922E94AE}"},
        {__uuidof(IAsyncOperation<DeviceInformationCollection*>), "{45180254-082E-5274-B2E7-AC0517F44D07}"},
        {__uuidof(IVectorView<DeviceInformation*>), "{E170688F-3495-5BF6-AAB5-9CAC17E0F10F}"},
        {__uuidof(PairingRequested), "{FA65231F-4178-5DE1-B2CC-03E22D7702B4}"},
        {__uuidof(IAsyncOperation<DevicePairingResult*>), "{1002DB74-8948-591E-815D-E40B667599A3}"},
    };
    for (const auto& item : cases)
        EXPECT_EQ(platform::toString(std::bit_cast<platform::Guid>(item.id)), item.expected);
}

}  // namespace
