// The event handlers that the program has registered, and the threads that call them.
#pragma once

#include <eventtoken.h>

#include <functional>
#include <map>
#include <mutex>

#include "platform/subscription.h"
#include "tests/winrt_provider/object.h"

namespace provider {

using Token = EventRegistrationToken;

// Threads: any.
class Registrations {
  public:
    HRESULT add(Token* out, const std::function<platform::Subscription()>& subscribe) {
        return guarded([&] {
            auto subscription = subscribe();
            const std::lock_guard lock(mutex_);
            subscriptions_.emplace(++last_, std::move(subscription));
            *out = {last_};
        });
    }

    // The subscription ends outside the lock, because that waits for a running callback.
    HRESULT remove(Token token) {
        std::unique_lock lock(mutex_);
        const auto removed = subscriptions_.extract(token.value);
        lock.unlock();
        return S_OK;
    }

  private:
    std::mutex mutex_;
    std::int64_t last_ = 0;                                         // guarded by mutex_
    std::map<std::int64_t, platform::Subscription> subscriptions_;  // guarded by mutex_
};

// Raises an event: on the calling thread, or, when the environment variable ZIQBLE_EVENT_THREADS gives a
// number, on one of so many threads. These raise events at the same moment and the newest first, also events
// of one characteristic, and events of a registration that was removed meanwhile. The runtime promises no
// better.
void raise(std::function<void()> event);

// Raises what still waits, and ends the threads.
void endEventThreads();

}  // namespace provider
