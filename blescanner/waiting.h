// Waiting: prescribed sleeps and the platform's operations, how a stop ends both, and what a failed write
// means for the link.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <string>

#include "platform/async.h"
#include "platform/event.h"
#include "platform/gatt.h"

namespace blescanner {

struct TioContext;

// Thrown at a checkpoint of work that has been stopped; only the top of the work catches it. Not an error, so
// no std::exception.
struct Stopped {};

// One for each piece of work that can be stopped. The program's end stops all of them.
//
// Threads: any.
class StopSignal {
  public:
    virtual ~StopSignal() = default;

    // For good. Ends the sleep that is under way, if there is one.
    void stop();
    bool stopped() const;

    // The checkpoint: throws Stopped. Stands before every step that reaches outside.
    void check() const;

    // Called ten times a second while an operation takes unusually long. May throw Stopped.
    virtual void waitingLong() {}

    // A prescribed sleep with a checkpoint behind it. The second form also ends when the event is signalled.
    void sleep(std::chrono::milliseconds duration);
    void sleep(std::chrono::milliseconds duration, platform::Event& waker);

  private:
    std::atomic<bool> stopped_ = false;
    platform::Event event_;
};

// Of the shell's own work, which only the program's end stops.
StopSignal& programEnd();

// Waits until the operation is no longer running, and logs a failure. There is no time-out: only the platform
// ends an operation, or the stop of the work that needs it, which throws Stopped and leaves the operation to
// itself. Polls and yields between two looks: GATT writes are short, and the link's throughput depends on
// seeing their end at once. Any thread.
void awaitOperation(const platform::AsyncInfo& operation, StopSignal& stop);

using GattWriteOperation = platform::AsyncOperation<platform::GattCommunicationStatus>;

// Judges a finished GATT write of the session: a closed object or an unreachable peripheral means that the
// link is lost (dropLink). Returns the write's status; nothing when it failed with an error. Throws
// PlatformError where the platform refuses the result (a cancelled write). Any thread.
std::optional<platform::GattCommunicationStatus> recoverOnError(TioContext& context,
                                                                GattWriteOperation& operation);

// Number and name of a status, for the log: "1 (unreachable)".
std::string statusText(platform::GattCommunicationStatus status);

}  // namespace blescanner
