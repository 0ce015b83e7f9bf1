// Holds an object of platform/ that its wrapper can release before the wrapper itself ends.
#pragma once

#include <memory>
#include <mutex>
#include <utility>

#include "platform/error.h"

namespace provider {

// Threads: any.
template <class Seam>
class Closable {
  public:
    explicit Closable(std::shared_ptr<Seam> object) : object_(std::move(object)) {}

    // Throws PlatformError once it is closed.
    std::shared_ptr<Seam> operator->() const {
        const std::lock_guard lock(mutex_);
        if (!object_) throw platform::PlatformError(platform::kRoEClosed);
        return object_;
    }
    void close() {
        std::unique_lock lock(mutex_);
        const auto closed = std::exchange(object_, nullptr);
        lock.unlock();
    }

  private:
    mutable std::mutex mutex_;
    std::shared_ptr<Seam> object_;  // guarded by mutex_
};

}  // namespace provider
