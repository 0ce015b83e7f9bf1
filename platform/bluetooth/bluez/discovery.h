// The search for peripherals.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "bus.h"

namespace bluez {

// The first adapter that is switched on.
std::optional<std::string> poweredAdapter(const Objects& objects);

// While one exists the adapter searches. bluetoothd knows one search for each of its clients: the program's
// share one. Where it cannot be had the reason is logged, and nothing is found.
class Discovery {
  public:
    explicit Discovery(std::shared_ptr<Bus> bus);
    ~Discovery();
    Discovery(const Discovery&) = delete;
    Discovery& operator=(const Discovery&) = delete;

    bool running() const { return !adapter_.empty(); }

  private:
    const std::shared_ptr<Bus> bus_;
    std::string adapter_;
};

}  // namespace bluez
