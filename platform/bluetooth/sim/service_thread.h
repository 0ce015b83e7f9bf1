// A thread that serves one registration, and its end.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace sim {

// Always owned by std::shared_ptr; the running thread keeps it alive.
class ServiceThread : public std::enable_shared_from_this<ServiceThread> {
  public:
    using Clock = std::chrono::steady_clock;

    ServiceThread() = default;
    virtual ~ServiceThread();
    ServiceThread(const ServiceThread&) = delete;
    ServiceThread& operator=(const ServiceThread&) = delete;

    // Once.
    void start();

    // Ends the thread and waits until it has ended. On the thread itself it only asks for the end, which
    // follows when the running callback returns; none runs after that one.
    void finish() noexcept;

    // Likewise, but gives up waiting at the deadline, and then returns false.
    bool finishBefore(Clock::time_point deadline) noexcept;

  protected:
    // The thread's body. Returns soon after `stopping_` was set, and waits on `wake_` only.
    virtual void run() = 0;

    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;  // guarded by mutex_

  private:
    bool requestStop() noexcept;
    void join() noexcept;
    void serve();

    std::condition_variable endedSignal_;
    bool ended_ = false;         // guarded by mutex_
    std::thread::id servingId_;  // guarded by mutex_
    std::mutex joinMutex_;
    std::thread thread_;  // guarded by joinMutex_
};

}  // namespace sim
