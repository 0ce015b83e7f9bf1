// The threads on which the program's GATT callbacks run: one for each registration, so that a callback that
// blocks holds back nothing but its own registration.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "platform/gatt.h"
#include "record_ring.h"
#include "service_thread.h"

namespace sim {

// Nothing stands for event arguments that the platform did not hand out.
using Value = std::optional<std::span<const std::uint8_t>>;

class ValueDelivery : public ServiceThread {
  public:
    using Handler = platform::GattCharacteristic::ValueChangedHandler;

    // The sender is not kept alive: once it is gone nothing is delivered.
    ValueDelivery(std::weak_ptr<platform::GattCharacteristic> sender, Handler handler)
        : sender_(std::move(sender)), handler_(std::move(handler)) {}

    // Copies the bytes.
    void post(Value value);

  private:
    void run() override;

    const std::weak_ptr<platform::GattCharacteristic> sender_;
    const Handler handler_;
    RecordRing waiting_;     // guarded by mutex_
    bool sleeping_ = false;  // guarded by mutex_
    std::vector<std::uint8_t> packet_;
};

class StatusDelivery : public ServiceThread {
  public:
    using Handler = platform::GattSession::StatusChangedHandler;

    explicit StatusDelivery(Handler handler) : handler_(std::move(handler)) {}

    void post(platform::GattSessionStatus status);

  private:
    void run() override;

    const Handler handler_;
    std::deque<platform::GattSessionStatus> waiting_;  // guarded by mutex_
};

}  // namespace sim
