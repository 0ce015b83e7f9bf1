#include "link.h"

#include "peripheral.h"

namespace sim {

void SessionListeners::add(const std::shared_ptr<StatusDelivery>& listener) {
    const std::lock_guard lock(mutex_);
    std::erase_if(listeners_, [](const auto& entry) { return entry.expired(); });
    listeners_.push_back(listener);
}

void SessionListeners::tell(platform::GattSessionStatus status) {
    const std::lock_guard lock(mutex_);
    for (const auto& entry : listeners_) {
        if (const auto listener = entry.lock()) listener->post(status);
    }
}

Link::Link(std::shared_ptr<TioPeripheral> peripheral) : peripheral_(std::move(peripheral)) {}

Link::~Link() {
    peripheral_->forget(*this);
}

void Link::open() {
    state_.store(State::connected);
    sessionListeners_->tell(platform::GattSessionStatus::active);
}

void Link::close() {
    if (state_.exchange(State::closed) == State::connected) {
        sessionListeners_->tell(platform::GattSessionStatus::closed);
    }
}

}  // namespace sim
