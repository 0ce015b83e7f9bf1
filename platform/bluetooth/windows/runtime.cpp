#include "platform/runtime.h"

#include "platform/bluetooth/windows/operation.h"

namespace platform {

BluetoothRuntime::BluetoothRuntime() = default;

BluetoothRuntime::~BluetoothRuntime() {
    winrt::endOperations();
}

}  // namespace platform
