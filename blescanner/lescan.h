// The timed scan for peripherals that advertise the TIO service.
//
// Threads: calls block their thread for the scan; one scan at a time. Both throw PlatformError.
#pragma once

#include <cstdint>
#include <string>

namespace blescanner {

// Fills `result` with the peripherals found, as "address;name" or "address" joined by "," and closed by
// "\r\n", sorted, each distinct entry once; empty when there was none. Line ends in an advertised name become
// blanks.
void scanForTioDevices(std::wstring& result, std::uint32_t durationMs);

// A passive scan of half a second whose results nobody reads: it wakes the Bluetooth stack.
void triggerFakeScanEvent();

}  // namespace blescanner
