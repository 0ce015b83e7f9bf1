#include "platform/runtime.h"

#include "operation.h"

namespace platform {

BluetoothRuntime::BluetoothRuntime() = default;

BluetoothRuntime::~BluetoothRuntime() {
    winrt::endOperations();
}

}  // namespace platform
