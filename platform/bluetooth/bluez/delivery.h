// A thread that hands values to a handler, one after the other, so that a handler may block.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace bluez {

template <class Value>
class Delivery {
  public:
    using Handler = std::function<void(const Value&)>;

    explicit Delivery(Handler handler) : handler_(std::move(handler)), thread_([this] { run(); }) {}
    // Waits for a handler that runs; so it must not happen on the handler's own thread.
    ~Delivery() {
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;

    // Threads: any. Never blocks.
    void post(Value value) {
        {
            const std::lock_guard lock(mutex_);
            waiting_.push_back(std::move(value));
        }
        wake_.notify_one();
    }

  private:
    void run() {
        std::unique_lock lock(mutex_);
        for (;;) {
            wake_.wait(lock, [this] { return stopping_ || !waiting_.empty(); });
            if (stopping_) return;
            const Value value = std::move(waiting_.front());
            waiting_.pop_front();
            lock.unlock();
            handler_(value);
            lock.lock();
        }
    }

    const Handler handler_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<Value> waiting_;  // guarded by mutex_
    bool stopping_ = false;      // guarded by mutex_
    std::thread thread_;         // last: runs on the others
};

}  // namespace bluez
