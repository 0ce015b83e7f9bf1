#pragma once

#include "tests/winrt_provider/gatt.h"

namespace provider {

ComPtr<gatt::IGattCharacteristic> wrapCharacteristic(
    const std::shared_ptr<platform::GattCharacteristic>& characteristic);

}  // namespace provider
