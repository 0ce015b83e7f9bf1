// Registrations that are served in turn.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/subscription.h"

namespace bluetooth {

// Threads: any.
template <class Argument>
class CallbackList {
  public:
    using Handler = std::function<void(Argument)>;

    // One callback and its end. The lock is held during a call, so that the end waits for it; it is
    // recursive, so that a callback may end its own registration.
    struct Entry {
        explicit Entry(Handler toCall) : handler(std::move(toCall)) {}

        void call(Argument argument) {
            const std::lock_guard lock(mutex);
            if (!ended) handler(argument);
        }
        void end() {
            const std::lock_guard lock(mutex);
            ended = true;
        }

        const Handler handler;
        std::recursive_mutex mutex;
        bool ended = false;
    };

    void add(std::shared_ptr<Entry> entry) {
        const std::lock_guard lock(mutex_);
        auto entries = *entries_;
        entries.push_back(std::move(entry));
        entries_ = std::make_shared<const Entries>(std::move(entries));
    }
    void remove(const std::shared_ptr<Entry>& entry) {
        const std::lock_guard lock(mutex_);
        auto entries = *entries_;
        std::erase(entries, entry);
        entries_ = std::make_shared<const Entries>(std::move(entries));
    }
    bool empty() const {
        const std::lock_guard lock(mutex_);
        return entries_->empty();
    }

    // Calls them in the order of their registration, and passes on what they throw.
    void call(Argument argument) {
        std::unique_lock lock(mutex_);
        const auto entries = entries_;
        lock.unlock();
        for (const auto& entry : *entries)
            entry->call(argument);
    }

  private:
    using Entries = std::vector<std::shared_ptr<Entry>>;

    mutable std::mutex mutex_;
    std::shared_ptr<const Entries> entries_ =
        std::make_shared<Entries>();  // replaced, so that a call copies none
};

template <class Argument, class Handler>
platform::Subscription addCallback(const std::shared_ptr<CallbackList<Argument>>& list, Handler handler) {
    auto entry = std::make_shared<typename CallbackList<Argument>::Entry>(std::move(handler));
    list->add(entry);
    return platform::Subscription([list, entry] {
        list->remove(entry);
        entry->end();
    });
}

}  // namespace bluetooth
