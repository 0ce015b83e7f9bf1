// Device enumeration and custom pairing, as far as the older GATT generation needs them.
//
// Threads: calls from any thread; the pairing callback runs on a thread of the backend while the pairing
// operation is pending. Every call may throw PlatformError; a throw out of the callback makes the pairing
// fail.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/async.h"
#include "platform/subscription.h"

namespace platform {

// The platform's values, as far as they are used here; the platform may hand out others.
enum class DevicePairingKinds : std::uint32_t {
    none = 0,
    confirmOnly = 1,
    displayPin = 2,
    providePin = 4,
    confirmPinMatch = 8,
};
enum class DevicePairingProtectionLevel { none = 1 };
enum class DevicePairingResultStatus : std::int32_t {
    paired = 0,
    requiredHandlerNotRegistered = 16,
    rejectedByHandler = 17,
    failed = 19
};

class DevicePairingRequestedEventArgs {
  public:
    virtual ~DevicePairingRequestedEventArgs() = default;
    virtual DevicePairingKinds pairingKind() const = 0;
    virtual std::wstring pin() const = 0;
    virtual void accept() = 0;
    virtual void acceptWithPin(const std::wstring& pin) = 0;
};

class DeviceInformationCustomPairing {
  public:
    using PairingRequestedHandler = std::function<void(DevicePairingRequestedEventArgs& args)>;

    virtual ~DeviceInformationCustomPairing() = default;
    [[nodiscard]] virtual Subscription onPairingRequested(PairingRequestedHandler handler) = 0;
    // Nothing as result: the platform reports no outcome.
    virtual AsyncOperationPtr<std::optional<DevicePairingResultStatus>> pairAsync(
        DevicePairingKinds kinds, DevicePairingProtectionLevel minimumLevel) = 0;
};

class DeviceInformationPairing {
  public:
    virtual ~DeviceInformationPairing() = default;
    virtual bool isPaired() const = 0;
    virtual bool canPair() const = 0;
    // Null: the platform is too old for custom pairing.
    virtual std::shared_ptr<DeviceInformationCustomPairing> custom() = 0;
};

class DeviceInformation {
  public:
    virtual ~DeviceInformation() = default;
    virtual std::wstring id() const = 0;
    virtual std::shared_ptr<DeviceInformationPairing> pairing() = 0;
};

// Nothing: the platform gave no collection.
using DeviceInformationCollection = std::optional<std::vector<std::shared_ptr<DeviceInformation>>>;

// The query text that finds the device of an address.
std::wstring deviceSelectorFromBluetoothAddress(std::uint64_t address);

AsyncOperationPtr<DeviceInformationCollection> findAllDevicesAsync(const std::wstring& selector);

}  // namespace platform
