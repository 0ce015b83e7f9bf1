// What the program does with the machine's Bluetooth adapters: radio switches, protocol versions, the scan
// interval of the driver, and answering pairing requests.
//
// Threads: everything runs and blocks on the calling thread unless said otherwise. Nothing is locked: two
// resets at the same time are not prevented.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/adapter.h"
#include "platform/pairing.h"
#include "platform/radio.h"

namespace blescanner {

class StopSignal;

// --- Radios ---

enum class RadioCheckResult : std::uint8_t { BluetoothOff = 0, BluetoothOn = 1 };

// Null: no operation came back. Throws PlatformError.
platform::AsyncOperationPtr<platform::RadioList> requestRadioList();

// Looks for a Bluetooth radio that is on, up to the first one. Adds one to `counter` for each Bluetooth radio
// that it examines and never resets it, so a caller can tell "no Bluetooth hardware" (0) from "switched off".
// Without a list of radios Bluetooth counts as on. `runDriverCheck`: calls checkBluetoothDrivers() at the
// end. Throws PlatformError, and Stopped.
RadioCheckResult checkBluetoothRadio(std::uint32_t& counter, bool runDriverCheck, StopSignal& stop);

// Switches every Bluetooth radio off and on again, whatever its state: 4 to 16 s for each. Radios already
// switched when a call fails stay as they are. Throws nothing but Stopped, and not before a radio that it has
// switched off was switched on again.
void resetBluetooth(StopSignal& stop);

// A reset is under way on some thread. It takes every link down, so nothing connects meanwhile. Any thread.
bool isBluetoothResetting();

// Switches on the Bluetooth radios that are off: at most 5 s for each. Throws nothing but Stopped, at the
// program's end.
void switchBluetoothOn();

// --- Protocol versions ---

struct RadioVersionInfo {
    std::wstring name;
    std::int32_t lmpVersion = 0;  // Link Manager Protocol
    std::int32_t hciVersion = 0;
    bool operator==(const RadioVersionInfo&) const = default;
};

// The smallest LMP version of an adapter with Low Energy: Bluetooth 4.0.
inline constexpr std::int32_t kLowestLeLmpVersion = 6;

// Fills `list` with the adapters that answered, in the driver's order. False: there is no adapter at all.
bool enumerateRadioVersions(std::vector<RadioVersionInfo>& list);

// Logs what each adapter supports and adds the number of those with Low Energy to `leCount`, which may be
// null. False: there is no adapter at all.
bool getBLEProtocolSupport(std::uint32_t* leCount);

// --- Scan interval ---

// The scan interval was sent to the driver; never cleared in a running program. Any thread.
extern std::atomic<bool> scanIntervalsConfigured;

struct ScanConfigArgs {
    std::shared_ptr<platform::Adapter> adapter;
    std::uint16_t interval = 0;
};

// Has the scan interval sent to the first adapter, once per process. Returns scanIntervalsConfigured as it
// stands 250 ms later: whether the command was sent, not whether the driver accepted it. One thread at a
// time.
bool setScanIntervals();

// The body of the configuration thread.
void scanConfigThread(const ScanConfigArgs& args);

// True once no configuration thread runs any more, false when the time was over before. Any thread.
bool waitForScanConfigThread(std::chrono::milliseconds timeout);

// 1 when the driver took the command, otherwise its error number.
std::uint32_t applyScanWorkaround1809(platform::Adapter& adapter);
std::uint32_t applyScanWorkaround1903(platform::Adapter& adapter);

// --- Pairing ---

// Answers a pairing request without a user. Runs on a thread of the Bluetooth side. Throws PlatformError,
// which makes the pairing fail.
void onPairingRequested(platform::DevicePairingRequestedEventArgs& args);

}  // namespace blescanner
