#include "tests/winrt_provider/events.h"

#include <condition_variable>
#include <cstdlib>
#include <thread>
#include <vector>

namespace provider {

namespace {

class EventThreads {
  public:
    EventThreads() {
        const char* const wanted = std::getenv("ZIQBLE_EVENT_THREADS");
        for (int left = wanted ? std::atoi(wanted) : 0; left > 0; --left)
            threads_.emplace_back([this] { run(); });
    }

    void raise(std::function<void()> event) {
        if (threads_.empty()) return event();
        const std::lock_guard lock(mutex_);
        waiting_.push_back(std::move(event));
        wake_.notify_one();
    }
    void end() {
        {
            const std::lock_guard lock(mutex_);
            ending_ = true;
        }
        wake_.notify_all();
        for (auto& thread : threads_)
            thread.join();
    }

  private:
    void run() {
        std::unique_lock lock(mutex_);
        while (true) {
            wake_.wait(lock, [&] { return ending_ || !waiting_.empty(); });
            // Lets newer events come, which then overtake.
            wake_.wait_for(lock, std::chrono::milliseconds(2), [&] { return ending_; });
            if (waiting_.empty() && ending_) return;
            if (waiting_.empty()) continue;
            auto event = std::move(waiting_.back());
            waiting_.pop_back();
            lock.unlock();
            event();
            event = nullptr;
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<std::function<void()>> waiting_;  // guarded by mutex_
    bool ending_ = false;                         // guarded by mutex_
    std::vector<std::thread> threads_;
};

// Never destroyed: the process may end its threads in the middle of an event.
EventThreads& eventThreads() {
    static EventThreads& instance = *new EventThreads;
    return instance;
}

}  // namespace

void raise(std::function<void()> event) {
    eventThreads().raise(std::move(event));
}

void endEventThreads() {
    eventThreads().end();
}

}  // namespace provider
