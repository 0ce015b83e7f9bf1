// The kernel's Bluetooth management interface, as far as it needs no privilege.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/error.h"

namespace bluez {

struct ControllerInfo {
    std::string name;
    std::uint8_t version = 0;  // of Bluetooth Core, as the controller's link manager numbers it
};

// Calls block until the kernel has answered, which it does at once.
platform::SystemError readControllers(std::vector<std::uint16_t>& indices);
platform::SystemError readControllerInfo(std::uint16_t index, ControllerInfo& out);

// The values of the kernel's reply.
bool parseControllerInfo(std::span<const std::uint8_t> values, ControllerInfo& out);

}  // namespace bluez
