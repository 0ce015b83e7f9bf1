// Only the older GATT generation enumerates and pairs, and it never runs here (runtime.cpp). If a peripheral
// asks for pairing, bluetoothd and its agent do it.
#include "platform/pairing.h"

#include "bluetooth/operation.h"
#include "platform/address.h"
#include "platform/text.h"

namespace platform {

std::wstring deviceSelectorFromBluetoothAddress(std::uint64_t address) {
    return widen(formatAddress(address));
}

AsyncOperationPtr<DeviceInformationCollection> findAllDevicesAsync(const std::wstring&) {
    return bluetooth::completed(DeviceInformationCollection(std::in_place));
}

}  // namespace platform
