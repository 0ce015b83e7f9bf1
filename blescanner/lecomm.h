// The TIO link session: its state, its start, and the thread that runs it.
//
// There is at most one session that serves the client. Each session has a TioContext of its own, so that an
// earlier one that is still winding down can neither serve nor reset the newer one; currentTioContext() is
// the latest.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "byte_loss.h"
#include "lecomm_profile.h"
#include "platform/event.h"
#include "platform/gatt.h"
#include "waiting.h"

namespace blescanner {

class CNamedPipe;

// Threads: the atomics are shared by the shell thread, the communication thread and the value-changed
// handler. The object references belong to the communication thread; the handler reads them while its
// subscription lives, that is, after they were stored and before they are released.
struct TioContext {
    std::atomic<std::int32_t> txMtu = TIO_DEFAULT_MTU;  // bytes; the largest write to RX_UUID
    platform::Guid serviceUuid = TIO_SERVICE_UUID;
    platform::Guid altServiceUuid = TIO_ALT_SERVICE_UUID;
    // Non-null while the session runs, cleared by whoever ends it (endLink, stopLink). Points at
    // dataPipeOwner's.
    std::atomic<CNamedPipe*> dataPipe = nullptr;
    std::atomic<std::int32_t> localCredits = 0;
    std::atomic<std::int32_t> remoteCredits = 0;
    platform::Guid txUuid = TX_UUID;
    platform::Guid rxUuid = RX_UUID;
    platform::Guid crtxUuid = CRTX_UUID;
    platform::Guid crrxUuid = CRRX_UUID;
    platform::Guid txmtuUuid = TXMTU_UUID;
    platform::Guid rxmtuUuid = RXMTU_UUID;
    std::shared_ptr<platform::BluetoothLEDevice> device;
    std::shared_ptr<platform::GattDeviceService> service;
    std::shared_ptr<platform::GattCharacteristic> crtxChar;
    std::shared_ptr<platform::GattCharacteristic> crrxChar;
    std::shared_ptr<platform::GattCharacteristic> rxChar;
    std::shared_ptr<platform::GattCharacteristic> txChar;
    std::shared_ptr<platform::GattCharacteristic> txmtuChar;
    std::shared_ptr<platform::GattCharacteristic> rxmtuChar;

    // Set by stopLink. A session that has been stopped ends its subscriptions, releases what it holds and
    // logs its end. It sends no line, makes no call to the Bluetooth side and touches no radio, but for one
    // that its own reset has switched off.
    StopSignal stop;
    // Held while a line is posted, and while the session is ended or stopped: so no line follows its end.
    std::mutex lineOrder;
    platform::Event creditsArrived;  // set by the value-changed handler, reset by the data pump
    ByteLoss lostToClient;
    // Keeps the pipe alive for a thread that has read dataPipe just before it was cleared. Set before the
    // session's threads exist.
    std::shared_ptr<CNamedPipe> dataPipeOwner;
    std::vector<platform::Subscription> subscriptions;
    // Bytes of this session; they stay readable after its end, until the next one starts.
    std::atomic<std::uint64_t> rxBytes = 0;  // from the peripheral into the data pipe
    std::atomic<std::uint64_t> txBytes = 0;  // to the peripheral
};

// Process-wide figures. Shell thread only.
struct TioStatistics {
    std::uint64_t rxBytesTotal = 0;  // of all earlier sessions
    std::int32_t localCreditsShown = 0;
    std::int32_t remoteCreditsShown = 0;
};

// The latest session's; before the first one that of a session that never ran. Never null. Any thread.
std::shared_ptr<TioContext> currentTioContext();

// Ends the subscriptions, then releases the platform's objects and zeroes the rest; the byte counters stay.
// May wait for a value-changed handler that is running. Communication thread of the session.
void resetTioContext(TioContext& context);

// Copies the context's credits to the shown ones and returns the figures. Shell thread.
const TioStatistics& copyShownCredits(const TioContext& context);

// For a catch block: logs the text of the exception that it handles, if that has one. Any thread.
void logCurrentException();

// Six hexadecimal bytes separated by colons, the first one the most significant. One-digit fields are taken;
// anything before or behind that the scan format does not take is refused. Throws std::runtime_error naming
// the text.
std::uint64_t parseBleAddress(const std::wstring& text);

// Starts a session on the data pipe; its outcome reaches the client later as a line. Blocks for the 500 ms of
// the wake-up scan. Always 0: what goes wrong is logged. Shell thread.
int lecommStart(std::shared_ptr<CNamedPipe> dataPipe, const std::wstring& address);

// Body of a session's thread.
void commThread(const std::shared_ptr<TioContext>& context, const std::wstring& address);

// Moves bytes from the data pipe's client to the peripheral until the pipe is gone or broken. Communication
// thread.
void runDataPump(const std::shared_ptr<TioContext>& context);

void onSessionStatusChanged(const std::shared_ptr<TioContext>& context, platform::GattSessionStatus status);

// The session ends by itself and gives the data pipe up. True for the one call that did it. Any thread.
bool endLink(TioContext& context);

// The link is lost: ends the session and tells the client "TIO DROP", once. Any thread.
void dropLink(TioContext& context);

// Stops the session for good, and takes back the lines that have not been delivered yet. Any thread, once the
// session is the latest.
void stopLink(TioContext& context);

// Sends a line to the command-pipe client, unless the session has been stopped. Any thread.
void notifyClient(TioContext& context, const wchar_t* line);

// The same for a line that only a running session sends: it never follows the line that tells the end. Any
// thread.
void notifyWhileLinked(TioContext& context, const wchar_t* line);

// True once every session thread has ended, false when the time was over before. Any thread.
bool waitForLinkSessions(std::chrono::milliseconds timeout);

}  // namespace blescanner
