#include "cmdpipe_bluetooth.h"

#include <loguru.hpp>
#include <string>

#include "cmdpipe.h"

namespace blescanner {

namespace {

void tell(CNamedPipe& client, std::wstring reply, const char* logged) {
    client.writeText(reply);
    LOG_S(INFO) << logged;
}

}  // namespace

void tellBluetoothUnusable(CNamedPipe& client, std::uint32_t radios) {
    if (radios == 0) return tell(client, L"BLE NOT FOUND\r\n", "BLE NOT FOUND\r\n");
    // The log lacks the reply's "!" on purpose.
    tell(client, L"BLE DISABLED!\r\n", "BLE DISABLED\r\n");
}

void warnOfMissingLowEnergy() {
    LOG_S(WARNING)
        << "[WARNING] Bluetooth available on PC but no support for Bluetooth Low Energy (BLE) found!";
}

void tellLowEnergyMissing(CNamedPipe& client) {
    tell(client, L"LE NOT SUPPORTED\r\n", "LE NOT SUPPORTED\r\n");
}

}  // namespace blescanner
