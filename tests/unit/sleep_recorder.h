// Records the program's fixed sleeps and runs them a thousand times faster.
#pragma once

#include <chrono>
#include <mutex>
#include <vector>

#include "platform/clock.h"

namespace test {

// Create it after the simulated world, which sets a time scale of its own, and while no other thread sleeps.
// Only one may exist at a time.
class SleepRecorder {
  public:
    explicit SleepRecorder(double timeScale = 1000) {
        platform::setTimeScale(timeScale);
        platform::setSleepObserver([this](std::chrono::milliseconds duration) {
            const std::lock_guard guard(mutex_);
            sleeps_.push_back(duration.count());
        });
    }
    ~SleepRecorder() {
        platform::setSleepObserver({});
        platform::setTimeScale(1);
    }
    void clear() {
        const std::lock_guard guard(mutex_);
        sleeps_.clear();
    }
    // Milliseconds as the program asked for them, of all threads, in order.
    std::vector<long long> sleeps() const {
        const std::lock_guard guard(mutex_);
        return sleeps_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<long long> sleeps_;
};

}  // namespace test
