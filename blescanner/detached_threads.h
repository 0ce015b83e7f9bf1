// Threads that nobody joins, because a Bluetooth call of theirs may never come back. The end of the program
// waits for them with a time-out.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

namespace blescanner {

// Threads: any. Must outlive its threads: make it a static, and end the process by platform::endProcess while
// one still runs.
class DetachedThreads {
  public:
    // The function and what it has captured are destroyed before the thread counts as ended.
    template <class Function>
    void start(Function function) {
        {
            const std::lock_guard lock(mutex_);
            ++running_;
        }
        try {
            std::thread([this, held = std::move(function)]() mutable {
                {
                    const Function body = std::move(held);
                    body();
                }
                leave();
            }).detach();
        } catch (...) {
            leave();
            throw;
        }
    }

    // True once none runs, false when the time was over before.
    bool wait(std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        return ended_.wait_for(lock, timeout, [this] { return running_ == 0; });
    }

  private:
    void leave() {
        const std::lock_guard lock(mutex_);
        --running_;
        ended_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable ended_;
    int running_ = 0;
};

}  // namespace blescanner
