// Asynchronous operations of the platform: waiting for their end, and what a failed write means for the link.
#pragma once

#include <optional>
#include <string>

#include "platform/async.h"
#include "platform/gatt.h"

namespace blescanner {

class StopSignal;
struct TioContext;

// Waits until the operation is no longer running, and logs a failure. There is no time-out: only the platform
// ends an operation, or the stop of the work that needs it, which throws Stopped and leaves the operation to
// itself. Polls and yields between two looks: GATT writes are short, and the link's throughput depends on
// seeing their end at once. Any thread.
void awaitOperation(const platform::AsyncInfo& operation, const StopSignal& stop);

using GattWriteOperation = platform::AsyncOperation<platform::GattCommunicationStatus>;

// Judges a finished GATT write of the session: a closed object or an unreachable peripheral ends the
// session's claim on the data pipe and tells the client "TIO DROP", once. Returns the write's status; nothing
// when it failed with an error. Throws PlatformError where the platform refuses the result (a cancelled
// write). Any thread.
std::optional<platform::GattCommunicationStatus> recoverOnError(TioContext& context,
                                                                GattWriteOperation& operation);

// Number and name of a status, for the log: "1 (unreachable)".
std::string statusText(platform::GattCommunicationStatus status);

}  // namespace blescanner
