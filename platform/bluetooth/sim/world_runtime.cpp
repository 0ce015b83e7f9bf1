#include "world_runtime.h"

#include <map>
#include <utility>

namespace sim {

namespace {

constexpr auto kEndPatience = std::chrono::seconds(2);
constexpr std::size_t kPruneSize = 64;

// Forgets what is gone whenever the list would have to grow.
template <class Object>
void addPruned(std::vector<std::weak_ptr<Object>>& list, std::weak_ptr<Object> object) {
    if (list.size() == list.capacity()) {
        std::erase_if(list, [](const auto& entry) { return entry.expired(); });
        list.reserve(list.size() * 2 + kPruneSize);
    }
    list.push_back(std::move(object));
}

}  // namespace

class Timeline : public ServiceThread {
  public:
    void at(Clock::time_point time, std::function<void()> task) {
        const std::lock_guard lock(mutex_);
        if (stopping_) return;
        tasks_.emplace(time, std::move(task));
        wake_.notify_one();
    }

  private:
    void run() override {
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            if (tasks_.empty()) {
                wake_.wait(lock);
            } else if (const auto due = tasks_.begin()->first; due > Clock::now()) {
                wake_.wait_until(lock, due);
            } else {
                auto task = tasks_.extract(tasks_.begin());
                lock.unlock();
                task.mapped()();
                task = {};
                lock.lock();
            }
        }
        auto dropped = std::move(tasks_);
        lock.unlock();
    }

    std::multimap<Clock::time_point, std::function<void()>> tasks_;
};

WorldRuntime::WorldRuntime() : timeline_(std::make_shared<Timeline>()) {
    launch(timeline_);
}

WorldRuntime::~WorldRuntime() {
    end();
}

void WorldRuntime::at(Clock::time_point time, std::function<void()> task) {
    timeline_->at(time, std::move(task));
}

void WorldRuntime::launch(const std::shared_ptr<ServiceThread>& thread) {
    const std::lock_guard lock(mutex_);
    if (ended_) return;
    thread->start();
    addPruned<ServiceThread>(threads_, thread);
}

void WorldRuntime::cancelAtEnd(std::weak_ptr<Cancelable> operation) {
    std::unique_lock lock(mutex_);
    if (!ended_) return addPruned(operations_, std::move(operation));
    lock.unlock();
    if (const auto pending = operation.lock()) pending->cancel();
}

void WorldRuntime::waitForEnd() {
    std::unique_lock lock(mutex_);
    endSignal_.wait(lock, [this] { return ended_; });
}

void WorldRuntime::end() {
    std::unique_lock lock(mutex_);
    if (std::exchange(ended_, true)) return;
    const auto operations = std::move(operations_);
    const auto threads = std::move(threads_);
    lock.unlock();

    endSignal_.notify_all();
    for (const auto& weak : operations) {
        if (const auto operation = weak.lock()) operation->cancel();
    }
    // All are asked before any is waited for, so that a stuck one takes no time from the others.
    const auto now = Clock::now();
    for (const auto deadline : {now, now + kEndPatience}) {
        for (const auto& weak : threads) {
            if (const auto thread = weak.lock()) thread->finishBefore(deadline);
        }
    }
}

}  // namespace sim
