// What the person in front of the machine can do when Bluetooth cannot be had. No call of the seam can
// carry these lines: most of what they tell of happens on its own, between two calls.
#pragma once

#include <string>

namespace bluez {

enum class Trouble {
    noBus,           // the detail is the reason
    noService,       // bluetoothd does not run
    serviceEnded,    // bluetoothd has ended while the program ran
    noPermission,    // the system bus keeps this user away from bluetoothd
    noAdapter,       // none that is switched on
    adapterOff,      // the detail is the adapter, here and below
    adapterBlocked,  // by a switch of the machine
    adapterGone,
};

// Logs a warning. Threads: any.
void advise(Trouble trouble, const std::string& detail = {});

}  // namespace bluez
