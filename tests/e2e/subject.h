// The executable under test: the simulated program, or the one that the environment variable ZIQBLE_PROGRAM
// names.
#pragma once

#include <string>

namespace e2e {

std::string programUnderTest();

// True for ZIQBLEConnect, false for ZIQBLEConnect-sim. Radios and peripherals come from the scenario in both
// cases. With ZIQBLEConnect the version and the adapters are those of the system, and the program's sleeps
// keep their length.
bool hasRealBluetoothSide();

// True when the program runs on a system that has only the older GATT calls.
bool runsOnOlderSystem();

}  // namespace e2e
