// The threads of a simulated world, its timed tasks and its pending operations, and how all of them end.
//
// Lives as long as the program holds one of the world's objects, even after the world itself. Threads: any.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "bluetooth/operation.h"
#include "service_thread.h"

namespace sim {

using bluetooth::Cancelable;
using bluetooth::completed;
using bluetooth::Operation;

class Timeline;

class WorldRuntime {
  public:
    using Clock = std::chrono::steady_clock;

    WorldRuntime();
    ~WorldRuntime();
    WorldRuntime(const WorldRuntime&) = delete;
    WorldRuntime& operator=(const WorldRuntime&) = delete;

    // An operation that runs until somebody ends it, at the latest the world's end, which cancels it.
    template <class Result>
    std::shared_ptr<Operation<Result>> pendingOperation() {
        auto operation = std::make_shared<Operation<Result>>();
        cancelAtEnd(operation);
        return operation;
    }

    // Runs the task on the timeline's thread, tasks of the same time in order. Tasks must not block; none
    // runs after the world's end.
    void at(Clock::time_point time, std::function<void()> task);

    // Starts the thread, which runs until it is finished or the world ends. Does nothing after the world's
    // end.
    void launch(const std::shared_ptr<ServiceThread>& thread);

    // Blocks until the world ends.
    void waitForEnd();

    // The world's end. Waits for threads, but not for ever: a callback of the program may be stuck.
    void end();

    bool bluetoothOn() const { return bluetoothOn_.load(); }
    void setBluetoothOn(bool on) { bluetoothOn_.store(on); }

  private:
    void cancelAtEnd(std::weak_ptr<Cancelable> operation);

    std::atomic<bool> bluetoothOn_ = true;
    std::shared_ptr<Timeline> timeline_;
    std::mutex mutex_;
    std::condition_variable endSignal_;
    bool ended_ = false;
    std::vector<std::weak_ptr<Cancelable>> operations_;
    std::vector<std::weak_ptr<ServiceThread>> threads_;
};

}  // namespace sim
