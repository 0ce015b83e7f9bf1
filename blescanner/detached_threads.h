// Threads that nobody joins, because a Bluetooth call that they make may never come back; but whose end can
// be waited for, so that they do not run into the end of the process.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

namespace blescanner {

// Any thread. Lives as long as its threads: as a static, in a process that they may outlive only by _Exit.
class DetachedThreads {
  public:
    // What the function holds is released before the thread counts as ended.
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
