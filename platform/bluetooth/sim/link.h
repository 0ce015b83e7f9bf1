// The connection of one device object to its peripheral.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <vector>

#include "bluetooth/callback_list.h"
#include "delivery.h"
#include "profile.h"

namespace sim {

class TioPeripheral;

// Who wants to know of a session's status.
using SessionListeners = bluetooth::CallbackList<platform::GattSessionStatus>;

// Shared by a device object, its services and their characteristics; when the last of them goes, so does the
// connection. A peripheral has one connection: a newer link takes it over and leaves the older one closed.
// The peripheral does all the work, under its lock.
class Link {
  public:
    explicit Link(std::shared_ptr<TioPeripheral> peripheral) : peripheral_(std::move(peripheral)) {}
    ~Link();
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    TioPeripheral& peripheral() const { return *peripheral_; }
    bool connected() const { return state_.load() == State::connected; }
    const std::shared_ptr<SessionListeners>& sessionListeners() const { return sessionListeners_; }

  private:
    friend class TioPeripheral;

    enum class State { unused, connected, closed };
    using Deliveries = std::vector<std::shared_ptr<ValueDelivery>>;

    void open();
    void close();

    const std::shared_ptr<TioPeripheral> peripheral_;
    const std::shared_ptr<SessionListeners> sessionListeners_ = std::make_shared<SessionListeners>();
    std::atomic<State> state_ = State::unused;
    std::array<Deliveries, kCharacteristicKinds> deliveries_;  // guarded by the peripheral's lock
};

}  // namespace sim
