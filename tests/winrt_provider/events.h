// The event handlers that the program has registered.
#pragma once

#include <eventtoken.h>

#include <cstdint>
#include <map>
#include <mutex>

#include "platform/subscription.h"

namespace provider {

// Threads: any.
class EventRegistrations {
  public:
    EventRegistrationToken add(platform::Subscription subscription) {
        const std::lock_guard lock(mutex_);
        subscriptions_.emplace(++last_, std::move(subscription));
        return {last_};
    }

    // The subscription ends outside the lock, because that waits for a running callback.
    void remove(EventRegistrationToken token) {
        std::unique_lock lock(mutex_);
        const auto removed = subscriptions_.extract(token.value);
        lock.unlock();
    }

  private:
    std::mutex mutex_;
    std::int64_t last_ = 0;                                         // guarded by mutex_
    std::map<std::int64_t, platform::Subscription> subscriptions_;  // guarded by mutex_
};

}  // namespace provider
