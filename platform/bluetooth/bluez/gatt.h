// The characteristics of platform/gatt.h.
#pragma once

#include <memory>
#include <string>

#include "connection.h"
#include "platform/gatt.h"

namespace bluez {

std::shared_ptr<platform::GattCharacteristic> makeCharacteristic(std::shared_ptr<Connection> connection,
                                                                 std::string path,
                                                                 const platform::Guid& uuid);

}  // namespace bluez
