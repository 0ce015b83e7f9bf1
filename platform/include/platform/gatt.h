// GATT client: a device, its services, their characteristics.
//
// Threads: calls from any thread; objects are shared by reference and alive as long as somebody holds them.
// Callbacks run on threads of the backend; those of one registration never overlap and keep the order of the
// air. A callback may call anything here but write the descriptor of its own characteristic, and may block,
// which holds back its own registration only. It must not throw. Errors: a call may throw PlatformError; a
// null operation means that the platform gave none.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/async.h"
#include "platform/guid.h"
#include "platform/subscription.h"

namespace platform {

// The platform's values.
enum class BluetoothConnectionStatus { disconnected = 0, connected = 1 };
enum class BluetoothCacheMode { cached = 0, uncached = 1 };
enum class GattCommunicationStatus { success = 0, unreachable = 1, protocolError = 2, accessDenied = 3 };
enum class GattWriteOption { writeWithResponse = 0, writeWithoutResponse = 1 };
enum class GattClientCharacteristicConfigurationDescriptorValue { none = 0, notify = 1, indicate = 2 };
enum class GattSessionStatus { closed = 0, active = 1 };

// The value is valid during the callback only.
struct GattValueChangedEventArgs {
    std::span<const std::uint8_t> value;
};

class GattCharacteristic {
  public:
    // Either pointer may be null where the platform hands out nothing.
    using ValueChangedHandler =
        std::function<void(GattCharacteristic* sender, const GattValueChangedEventArgs* args)>;

    virtual ~GattCharacteristic() = default;
    virtual Guid uuid() const = 0;
    // The bytes are taken over before the call returns. The status is what the platform reports of the write.
    virtual AsyncOperationPtr<GattCommunicationStatus> writeValueAsync(std::span<const std::uint8_t> value,
                                                                       GattWriteOption option) = 0;
    virtual AsyncOperationPtr<GattCommunicationStatus> writeClientCharacteristicConfigurationDescriptorAsync(
        GattClientCharacteristicConfigurationDescriptorValue value) = 0;
    [[nodiscard]] virtual Subscription onValueChanged(ValueChangedHandler handler) = 0;
};

// An absent list stands for a missing result as well as for a result without a list.
struct GattCharacteristicsResult {
    GattCommunicationStatus status = GattCommunicationStatus::success;
    std::optional<std::vector<std::shared_ptr<GattCharacteristic>>> characteristics;
};

class GattSession {
  public:
    using StatusChangedHandler = std::function<void(GattSessionStatus status)>;

    virtual ~GattSession() = default;
    [[nodiscard]] virtual Subscription onSessionStatusChanged(StatusChangedHandler handler) = 0;
};

class GattDeviceService {
  public:
    virtual ~GattDeviceService() = default;
    virtual Guid uuid() const = 0;
    virtual AsyncOperationPtr<GattCharacteristicsResult> getCharacteristicsForUuidAsync(const Guid& uuid) = 0;
    // The older call: answers from what is known of the device; an empty list where there is none.
    virtual std::vector<std::shared_ptr<GattCharacteristic>> getCharacteristics(const Guid& uuid) = 0;
    // Never null.
    virtual std::shared_ptr<GattSession> session() = 0;
};

struct GattDeviceServicesResult {
    GattCommunicationStatus status = GattCommunicationStatus::success;
    std::optional<std::vector<std::shared_ptr<GattDeviceService>>> services;
};

class BluetoothLEDevice {
  public:
    virtual ~BluetoothLEDevice() = default;
    virtual BluetoothConnectionStatus connectionStatus() const = 0;
    // What is known of the device without asking it; an empty list where nothing is.
    virtual std::vector<std::shared_ptr<GattDeviceService>> gattServices() = 0;
    // Connects if need be.
    virtual AsyncOperationPtr<GattDeviceServicesResult> getGattServicesForUuidAsync(const Guid& uuid) = 0;
    virtual AsyncOperationPtr<GattDeviceServicesResult> getGattServicesAsync(BluetoothCacheMode mode) = 0;
};

// The low 48 bits of the address count. The result is null when no such device is known or found.
AsyncOperationPtr<std::shared_ptr<BluetoothLEDevice>> bluetoothLEDeviceFromAddressAsync(
    std::uint64_t address);

}  // namespace platform
