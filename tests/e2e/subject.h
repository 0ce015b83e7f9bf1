// The executable under test: the simulated program, or the one that the environment variable ZIQBLE_PROGRAM
// names.
#pragma once

#include <string>

namespace e2e {

std::string programUnderTest();

// Its Bluetooth side is not the simulated one: radios and peripherals come from the scenario all the same,
// but the version and the adapters are the system's, and what the program sleeps lasts as long as it does.
bool hasRealBluetoothSide();

// The system is one with the older GATT calls only.
bool runsOnOlderSystem();

}  // namespace e2e
