// The GATT objects of platform/gatt.h.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "connection.h"
#include "platform/gatt.h"

namespace bluez {

// What is known of the device's services, in the order of their handles.
std::vector<std::shared_ptr<platform::GattDeviceService>> knownServices(
    const std::shared_ptr<Connection>& connection);

std::shared_ptr<platform::GattCharacteristic> makeCharacteristic(std::shared_ptr<Connection> connection,
                                                                 std::string path,
                                                                 const platform::Guid& uuid);

}  // namespace bluez
