#include "delivery.h"

namespace sim {

namespace {

constexpr std::uint32_t kNoValue = 0;
constexpr std::uint32_t kHasValue = 1;

}  // namespace

void ValueDelivery::post(Value value) {
    bool wake = false;
    {
        const std::lock_guard lock(mutex_);
        if (stopping_) return;
        waiting_.push(value.value_or(std::span<const std::uint8_t>()), value ? kHasValue : kNoValue);
        wake = std::exchange(sleeping_, false);
    }
    if (wake) wake_.notify_one();
}

void ValueDelivery::run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        if (waiting_.empty()) {
            sleeping_ = true;
            wake_.wait(lock);
            continue;
        }
        const bool hasValue = waiting_.pop(packet_) == kHasValue;
        lock.unlock();
        if (const auto sender = sender_.lock()) {
            const platform::GattValueChangedEventArgs args{packet_};
            handler_(sender.get(), hasValue ? &args : nullptr);
        }
        lock.lock();
    }
}

void StatusDelivery::post(platform::GattSessionStatus status) {
    const std::lock_guard lock(mutex_);
    waiting_.push_back(status);
    wake_.notify_one();
}

void StatusDelivery::run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        if (waiting_.empty()) {
            wake_.wait(lock);
            continue;
        }
        const auto status = waiting_.front();
        waiting_.pop_front();
        lock.unlock();
        handler_(status);
        lock.lock();
    }
}

}  // namespace sim
