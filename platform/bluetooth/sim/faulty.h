// What a fault makes of a call.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <type_traits>

#include "fault.h"
#include "peripheral.h"
#include "platform/gatt.h"
#include "platform/pairing.h"

namespace sim {

using PairingOutcome = std::optional<platform::DevicePairingResultStatus>;

// How a result carries a communication status. No device, or no list of radios, stands for any failure. Of a
// pairing it is the nearest outcome: connection rejected, authentication failure, access denied.
template <class Result>
Result resultWith(platform::GattCommunicationStatus status) {
    using Status = platform::GattCommunicationStatus;
    if constexpr (std::is_same_v<Result, Status>) {
        return status;
    } else if constexpr (requires(Result result) { result.status; }) {
        return {status, {}};
    } else if constexpr (std::is_same_v<Result, PairingOutcome>) {
        constexpr std::array kOutcomes = {0, 4, 9, 12};
        return platform::DevicePairingResultStatus(kOutcomes.at(static_cast<std::size_t>(status)));
    } else {
        return {};
    }
}

// The operation of a call that the fault hits; throws where the call itself is to fail. Not under the
// peripheral's lock.
template <class Result>
platform::AsyncOperationPtr<Result> faultyOperation(WorldRuntime& runtime, const Fault& fault) {
    using Status = platform::GattCommunicationStatus;
    switch (fault.action) {
        case FaultAction::null:
            return completed<Result>({});
        case FaultAction::noOperation:
            return nullptr;
        case FaultAction::unreachable:
        case FaultAction::disconnect:
            return completed<Result>(resultWith<Result>(Status::unreachable));
        case FaultAction::protocolError:
            return completed<Result>(resultWith<Result>(Status::protocolError));
        case FaultAction::accessDenied:
            return completed<Result>(resultWith<Result>(Status::accessDenied));
        case FaultAction::throwError:
            throw platform::PlatformError(fault.code);
        case FaultAction::hang:
            return runtime.pendingOperation<Result>();
        case FaultAction::error:
        case FaultAction::cancel:
            break;
    }
    auto operation = std::make_shared<Operation<Result>>();
    fault.action == FaultAction::error ? operation->fail(fault.code) : operation->cancel();
    return operation;
}

template <class Result>
platform::AsyncOperationPtr<Result> faultyOperation(TioPeripheral& peripheral, const Fault& fault) {
    if (fault.action == FaultAction::disconnect) peripheral.dropLink();
    return faultyOperation<Result>(peripheral.runtime(), fault);
}

// The same for the calls that answer at once with a list: returns when the list stays empty.
void applyFault(TioPeripheral& peripheral, const Fault& fault);

// The same for the lists of adapters and drivers, which carry a system error: the error's low 16 bits, or
// `none` for a list that is just empty.
platform::SystemError listError(WorldRuntime& runtime, const Fault& fault, platform::SystemError none);

}  // namespace sim
