// The local Bluetooth adapters as the Bluetooth driver knows them.
//
// Threads: any. Nothing here throws; failures are system errors. Calls block until the driver has answered.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/error.h"

namespace platform {

// The driver's local radio information reply, as it comes: 292 bytes.
using LocalRadioInfo = std::array<std::uint8_t, 292>;

class Adapter {
  public:
    virtual ~Adapter() = default;
    virtual SystemError name(std::wstring& out) const = 0;
    virtual SystemError localRadioInfo(LocalRadioInfo& out) const = 0;
    // Sends a raw scan command; `reply` may be empty. ioPending: the driver took it and is not done yet.
    virtual SystemError scanCommand(std::span<const std::uint8_t> command, std::span<std::uint8_t> reply) = 0;
};

// `error` tells why the list is empty, when it is.
struct AdapterList {
    std::vector<std::shared_ptr<Adapter>> adapters;
    SystemError error = SystemError::none;
};

AdapterList findAdapters();

}  // namespace platform
