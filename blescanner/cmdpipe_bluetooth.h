// What a client is told of Bluetooth that cannot be used: the same words at start-up and in the answer to a
// command.
#pragma once

#include <cstdint>

namespace blescanner {

class CNamedPipe;

// No Bluetooth radio is on. `radios`: how many there are. Shell thread.
void tellBluetoothUnusable(CNamedPipe& client, std::uint32_t radios);

// There are adapters, and none of them speaks Low Energy: a line of the log for the user, and one for the
// client. Shell thread.
void warnOfMissingLowEnergy();
void tellLowEnergyMissing(CNamedPipe& client);

}  // namespace blescanner
