// What a fault makes of a call.
#pragma once

#include <memory>
#include <optional>

#include "fault.h"
#include "peripheral.h"
#include "platform/gatt.h"
#include "platform/pairing.h"

namespace sim {

// How a result says that nothing came back, and how it carries a communication status.
template <class Result>
struct FaultyResult;

template <>
struct FaultyResult<std::shared_ptr<platform::BluetoothLEDevice>> {
    static std::shared_ptr<platform::BluetoothLEDevice> nothing() { return nullptr; }
    static std::shared_ptr<platform::BluetoothLEDevice> of(platform::GattCommunicationStatus) {
        return nullptr;
    }
};
template <>
struct FaultyResult<platform::GattDeviceServicesResult> {
    static platform::GattDeviceServicesResult nothing() { return {}; }
    static platform::GattDeviceServicesResult of(platform::GattCommunicationStatus status) {
        return {status, {}};
    }
};
template <>
struct FaultyResult<platform::GattCharacteristicsResult> {
    static platform::GattCharacteristicsResult nothing() { return {}; }
    static platform::GattCharacteristicsResult of(platform::GattCommunicationStatus status) {
        return {status, {}};
    }
};
template <>
struct FaultyResult<platform::GattCommunicationStatus> {
    // The program cannot tell a missing status from its first value.
    static platform::GattCommunicationStatus nothing() { return platform::GattCommunicationStatus::success; }
    static platform::GattCommunicationStatus of(platform::GattCommunicationStatus status) { return status; }
};
template <>
struct FaultyResult<std::optional<platform::DevicePairingResultStatus>> {
    using Outcome = std::optional<platform::DevicePairingResultStatus>;
    static Outcome nothing() { return {}; }
    // The nearest outcome: connection rejected, authentication failure, access denied.
    static Outcome of(platform::GattCommunicationStatus status) {
        switch (status) {
            case platform::GattCommunicationStatus::success:
                return platform::DevicePairingResultStatus::paired;
            case platform::GattCommunicationStatus::unreachable:
                return platform::DevicePairingResultStatus(4);
            case platform::GattCommunicationStatus::protocolError:
                return platform::DevicePairingResultStatus(9);
            case platform::GattCommunicationStatus::accessDenied:
                return platform::DevicePairingResultStatus(12);
        }
        return {};
    }
};

// The operation of a call that the fault hits; throws where the call itself is to fail. Not under the
// peripheral's lock.
template <class Result>
platform::AsyncOperationPtr<Result> faultyOperation(TioPeripheral& peripheral, const Fault& fault) {
    using Faulty = FaultyResult<Result>;
    using Status = platform::GattCommunicationStatus;
    switch (fault.action) {
        case FaultAction::null:
            return completed<Result>(Faulty::nothing());
        case FaultAction::noOperation:
            return nullptr;
        case FaultAction::unreachable:
            return completed<Result>(Faulty::of(Status::unreachable));
        case FaultAction::protocolError:
            return completed<Result>(Faulty::of(Status::protocolError));
        case FaultAction::accessDenied:
            return completed<Result>(Faulty::of(Status::accessDenied));
        case FaultAction::throwError:
            throw platform::PlatformError(fault.code);
        case FaultAction::hang:
            return peripheral.runtime().pendingOperation<Result>();
        case FaultAction::disconnect: {
            peripheral.dropLink();
            return completed<Result>(Faulty::of(Status::unreachable));
        }
        case FaultAction::error:
        case FaultAction::cancel:
            break;
    }
    auto operation = std::make_shared<Operation<Result>>();
    fault.action == FaultAction::error ? operation->fail(fault.code) : operation->cancel();
    return operation;
}

// The same for the calls that answer at once with a list: returns when the list stays empty.
void applyFault(TioPeripheral& peripheral, const Fault& fault);

}  // namespace sim
