// The timed scan for peripherals that advertise the TIO service.
//
// Threads: calls block their thread for the scan; one scan at a time. Both throw PlatformError.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace blescanner {

// Fills `result` with the peripherals found, as "address;name" or "address" joined by "," and closed by
// "\r\n", sorted, each distinct entry once; empty when there was none. Control characters in an advertised
// name become blanks.
//
// Lasts `durationMs`, or until `wanted` returns false: nobody waits for the result any more. `wanted` is
// called ten times a second on this thread.
void scanForTioDevices(std::wstring& result, std::uint32_t durationMs, const std::function<bool()>& wanted);

// Scans passively for half a second and drops the results: this wakes the Bluetooth stack.
void triggerFakeScanEvent();

}  // namespace blescanner
