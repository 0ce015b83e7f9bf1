// Only the older GATT generation enumerates and pairs, which never runs here (runtime.cpp): a peripheral
// that asks for pairing is bluetoothd's and its agent's business.
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
