#include "platform/gatt.h"

#include <activation.h>
#include <windows.devices.bluetooth.genericattributeprofile.h>
#include <windows.devices.bluetooth.h>
#include <windows.storage.streams.h>

#include <algorithm>
#include <array>

#include "event_handler.h"
#include "operation.h"
#include "platform/pairing.h"

namespace platform {

namespace {

namespace devices = ABI::Windows::Devices::Bluetooth;
namespace gatt = devices::GenericAttributeProfile;
namespace buffers = ABI::Windows::Storage::Streams;
using namespace winrt;
using ABI::Windows::Foundation::IAsyncOperation;
using ABI::Windows::Foundation::Collections::IVectorView;
using CharacteristicView = IVectorView<gatt::GattCharacteristic*>;
using ServiceView = IVectorView<gatt::GattDeviceService*>;

// The longest attribute value has 512 bytes (Bluetooth Core, vol 3, F 3.2.9); what is beyond this is cut.
using ValueBytes = std::array<std::uint8_t, 1024>;

// Bytes in and out of the runtime's buffers. The factories are looked up once, not for every packet.
//
// Threads: any.
class Streams {
  public:
    ComPtr<buffers::IBuffer> bufferOf(std::span<const std::uint8_t> bytes) const {
        const auto writer =
            query<buffers::IDataWriter>(objectOf(writers_, &IActivationFactory::ActivateInstance));
        // The writer takes a pointer to what it may change, and copies it.
        check(writer->WriteBytes(static_cast<UINT32>(bytes.size()), const_cast<BYTE*>(bytes.data())));
        return objectOf(writer, &buffers::IDataWriter::DetachBuffer);
    }

    // The bytes of the buffer, in `storage`.
    std::span<const std::uint8_t> bytesOf(buffers::IBuffer* buffer, ValueBytes& storage) const {
        if (!buffer) return {};
        ComPtr<buffers::IDataReader> reader;
        check(readers_->FromBuffer(buffer, reader.GetAddressOf()));
        const UINT32 length = std::min(valueOf(reader, &buffers::IDataReader::get_UnconsumedBufferLength),
                                       static_cast<UINT32>(storage.size()));
        if (length > 0) check(reader->ReadBytes(length, storage.data()));
        return std::span(storage).first(length);
    }

  private:
    const ComPtr<IActivationFactory> writers_ =
        activationFactory<IActivationFactory>(RuntimeClass_Windows_Storage_Streams_DataWriter);
    const ComPtr<buffers::IDataReaderStatics> readers_ =
        activationFactory<buffers::IDataReaderStatics>(RuntimeClass_Windows_Storage_Streams_DataReader);
};

AsyncOperationPtr<GattCommunicationStatus> makeWriteOperation(
    ComPtr<IAsyncOperation<gatt::GattCommunicationStatus>> operation) {
    return makeOperation<GattCommunicationStatus>(
        std::move(operation),
        [](gatt::GattCommunicationStatus status) { return static_cast<GattCommunicationStatus>(status); });
}

class WindowsCharacteristic final : public GattCharacteristic {
  public:
    WindowsCharacteristic(ComPtr<gatt::IGattCharacteristic> characteristic,
                          std::shared_ptr<const Streams> streams)
        : characteristic_(std::move(characteristic)), streams_(std::move(streams)) {}

    Guid uuid() const override {
        return fromRuntime(valueOf(characteristic_, &gatt::IGattCharacteristic::get_Uuid));
    }

    AsyncOperationPtr<GattCommunicationStatus> writeValueAsync(std::span<const std::uint8_t> value,
                                                               GattWriteOption option) override {
        ComPtr<IAsyncOperation<gatt::GattCommunicationStatus>> operation;
        check(characteristic_->WriteValueWithOptionAsync(streams_->bufferOf(value).Get(),
                                                         static_cast<gatt::GattWriteOption>(option),
                                                         operation.GetAddressOf()));
        return makeWriteOperation(std::move(operation));
    }

    AsyncOperationPtr<GattCommunicationStatus> writeClientCharacteristicConfigurationDescriptorAsync(
        GattClientCharacteristicConfigurationDescriptorValue value) override {
        ComPtr<IAsyncOperation<gatt::GattCommunicationStatus>> operation;
        check(characteristic_->WriteClientCharacteristicConfigurationDescriptorAsync(
            static_cast<gatt::GattClientCharacteristicConfigurationDescriptorValue>(value),
            operation.GetAddressOf()));
        return makeWriteOperation(std::move(operation));
    }

    Subscription onValueChanged(ValueChangedHandler handler) override {
        return subscribe<gatt::IGattCharacteristic, gatt::IGattValueChangedEventArgs>(
            characteristic_, &gatt::IGattCharacteristic::add_ValueChanged,
            &gatt::IGattCharacteristic::remove_ValueChanged,
            [handler = std::move(handler), streams = streams_](gatt::IGattCharacteristic* sender,
                                                               gatt::IGattValueChangedEventArgs* args) {
                deliver(handler, streams, sender, args);
            });
    }

  private:
    static void deliver(const ValueChangedHandler& handler, const std::shared_ptr<const Streams>& streams,
                        gatt::IGattCharacteristic* sender, gatt::IGattValueChangedEventArgs* args) {
        std::optional<WindowsCharacteristic> from;
        if (sender) from.emplace(sender, streams);
        WindowsCharacteristic* const seen = from ? &*from : nullptr;
        if (!args) return handler(seen, nullptr);
        ValueBytes storage;
        const auto buffer = objectOf(ComPtr<gatt::IGattValueChangedEventArgs>(args),
                                     &gatt::IGattValueChangedEventArgs::get_CharacteristicValue);
        const GattValueChangedEventArgs value{streams->bytesOf(buffer.Get(), storage)};
        handler(seen, &value);
    }

    const ComPtr<gatt::IGattCharacteristic> characteristic_;
    const std::shared_ptr<const Streams> streams_;
};

std::vector<std::shared_ptr<GattCharacteristic>> characteristicsOf(const ComPtr<CharacteristicView>& view) {
    const auto streams = std::make_shared<const Streams>();
    return elementsOf<std::shared_ptr<GattCharacteristic>>(
        view, [&streams](ComPtr<gatt::IGattCharacteristic> characteristic) {
            return std::make_shared<WindowsCharacteristic>(std::move(characteristic), streams);
        });
}

GattCharacteristicsResult characteristicsResult(const ComPtr<gatt::IGattCharacteristicsResult>& result) {
    if (!result) return {};
    const auto status = valueOf(result, &gatt::IGattCharacteristicsResult::get_Status);
    const auto view = objectOf(result, &gatt::IGattCharacteristicsResult::get_Characteristics);
    if (!view) return {static_cast<GattCommunicationStatus>(status), std::nullopt};
    return {static_cast<GattCommunicationStatus>(status), characteristicsOf(view)};
}

class WindowsSession final : public GattSession {
  public:
    explicit WindowsSession(ComPtr<gatt::IGattSession> session) : session_(std::move(session)) {}

    Subscription onSessionStatusChanged(StatusChangedHandler handler) override {
        return subscribe<gatt::IGattSession, gatt::IGattSessionStatusChangedEventArgs>(
            session_, &gatt::IGattSession::add_SessionStatusChanged,
            &gatt::IGattSession::remove_SessionStatusChanged,
            [handler = std::move(handler)](gatt::IGattSession*,
                                           gatt::IGattSessionStatusChangedEventArgs* args) {
                if (!args) return;
                const auto status = valueOf(ComPtr<gatt::IGattSessionStatusChangedEventArgs>(args),
                                            &gatt::IGattSessionStatusChangedEventArgs::get_Status);
                handler(static_cast<GattSessionStatus>(status));
            });
    }

  private:
    const ComPtr<gatt::IGattSession> session_;
};

class WindowsService final : public GattDeviceService {
  public:
    explicit WindowsService(ComPtr<gatt::IGattDeviceService> service) : service_(std::move(service)) {}

    Guid uuid() const override { return fromRuntime(valueOf(service_, &gatt::IGattDeviceService::get_Uuid)); }

    AsyncOperationPtr<GattCharacteristicsResult> getCharacteristicsForUuidAsync(const Guid& uuid) override {
        ComPtr<IAsyncOperation<gatt::GattCharacteristicsResult*>> operation;
        check(query<gatt::IGattDeviceService3>(service_)->GetCharacteristicsForUuidAsync(
            toRuntime(uuid), operation.GetAddressOf()));
        return makeOperation<GattCharacteristicsResult>(std::move(operation), characteristicsResult);
    }

    std::vector<std::shared_ptr<GattCharacteristic>> getCharacteristics(const Guid& uuid) override {
        ComPtr<CharacteristicView> view;
        check(service_->GetCharacteristics(toRuntime(uuid), view.GetAddressOf()));
        if (!view) return {};
        return characteristicsOf(view);
    }

    std::shared_ptr<GattSession> session() override {
        auto session =
            objectOf(query<gatt::IGattDeviceService3>(service_), &gatt::IGattDeviceService3::get_Session);
        if (!session) throw PlatformError(kEFail);
        return std::make_shared<WindowsSession>(std::move(session));
    }

  private:
    const ComPtr<gatt::IGattDeviceService> service_;
};

// Empty where there is no list.
std::vector<std::shared_ptr<GattDeviceService>> servicesOf(const ComPtr<ServiceView>& view) {
    if (!view) return {};
    return elementsOf<std::shared_ptr<GattDeviceService>>(view, [](ComPtr<gatt::IGattDeviceService> service) {
        return std::make_shared<WindowsService>(std::move(service));
    });
}

AsyncOperationPtr<GattDeviceServicesResult> makeServicesOperation(
    ComPtr<IAsyncOperation<gatt::GattDeviceServicesResult*>> operation) {
    return makeOperation<GattDeviceServicesResult>(
        std::move(operation),
        [](const ComPtr<gatt::IGattDeviceServicesResult>& result) -> GattDeviceServicesResult {
            if (!result) return {};
            const auto status = valueOf(result, &gatt::IGattDeviceServicesResult::get_Status);
            const auto view = objectOf(result, &gatt::IGattDeviceServicesResult::get_Services);
            if (!view) return {static_cast<GattCommunicationStatus>(status), std::nullopt};
            return {static_cast<GattCommunicationStatus>(status), servicesOf(view)};
        });
}

class WindowsDevice final : public BluetoothLEDevice {
  public:
    explicit WindowsDevice(ComPtr<devices::IBluetoothLEDevice> device) : device_(std::move(device)) {}

    BluetoothConnectionStatus connectionStatus() const override {
        return static_cast<BluetoothConnectionStatus>(
            valueOf(device_, &devices::IBluetoothLEDevice::get_ConnectionStatus));
    }

    std::vector<std::shared_ptr<GattDeviceService>> gattServices() override {
        return servicesOf(objectOf(device_, &devices::IBluetoothLEDevice::get_GattServices));
    }

    AsyncOperationPtr<GattDeviceServicesResult> getGattServicesForUuidAsync(const Guid& uuid) override {
        ComPtr<ServicesOperation> operation;
        check(query<devices::IBluetoothLEDevice3>(device_)->GetGattServicesForUuidAsync(
            toRuntime(uuid), operation.GetAddressOf()));
        return makeServicesOperation(std::move(operation));
    }

    AsyncOperationPtr<GattDeviceServicesResult> getGattServicesAsync(BluetoothCacheMode mode) override {
        ComPtr<ServicesOperation> operation;
        check(query<devices::IBluetoothLEDevice3>(device_)->GetGattServicesWithCacheModeAsync(
            static_cast<devices::BluetoothCacheMode>(mode), operation.GetAddressOf()));
        return makeServicesOperation(std::move(operation));
    }

  private:
    using ServicesOperation = IAsyncOperation<gatt::GattDeviceServicesResult*>;

    const ComPtr<devices::IBluetoothLEDevice> device_;
};

constexpr auto* kDeviceClass = RuntimeClass_Windows_Devices_Bluetooth_BluetoothLEDevice;

}  // namespace

AsyncOperationPtr<std::shared_ptr<BluetoothLEDevice>> bluetoothLEDeviceFromAddressAsync(
    std::uint64_t address) {
    const auto factory = activationFactory<devices::IBluetoothLEDeviceStatics>(kDeviceClass);
    ComPtr<IAsyncOperation<devices::BluetoothLEDevice*>> operation;
    check(factory->FromBluetoothAddressAsync(address, operation.GetAddressOf()));
    using Result = std::shared_ptr<BluetoothLEDevice>;
    return makeOperation<Result>(std::move(operation),
                                 [](const ComPtr<devices::IBluetoothLEDevice>& device) -> Result {
                                     if (!device) return nullptr;
                                     return std::make_shared<WindowsDevice>(device);
                                 });
}

std::wstring deviceSelectorFromBluetoothAddress(std::uint64_t address) {
    const auto factory = activationFactory<devices::IBluetoothLEDeviceStatics2>(kDeviceClass);
    RuntimeString selector;
    check(factory->GetDeviceSelectorFromBluetoothAddress(address, selector.put()));
    return selector.text();
}

}  // namespace platform
