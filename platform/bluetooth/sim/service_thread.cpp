#include "service_thread.h"

namespace sim {

ServiceThread::~ServiceThread() {
    if (!thread_.joinable()) return;
    // The serving thread itself may be the last one to let go.
    if (thread_.get_id() == std::this_thread::get_id()) {
        thread_.detach();
    } else {
        thread_.join();
    }
}

void ServiceThread::start() {
    const std::lock_guard joinLock(joinMutex_);
    thread_ = std::thread([self = shared_from_this()] { self->serve(); });
}

void ServiceThread::serve() {
    {
        const std::lock_guard lock(mutex_);
        servingId_ = std::this_thread::get_id();
    }
    run();
    const std::lock_guard lock(mutex_);
    ended_ = true;
    endedSignal_.notify_all();
}

void ServiceThread::finish() noexcept {
    if (requestStop()) join();
}

bool ServiceThread::finishBefore(Clock::time_point deadline) noexcept {
    if (!requestStop()) return false;
    {
        std::unique_lock lock(mutex_);
        if (!endedSignal_.wait_until(lock, deadline, [this] { return ended_; })) return false;
    }
    join();
    return true;
}

// False on the serving thread, which cannot wait for itself.
bool ServiceThread::requestStop() noexcept {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    wake_.notify_all();
    return servingId_ != std::this_thread::get_id();
}

void ServiceThread::join() noexcept {
    const std::lock_guard joinLock(joinMutex_);
    if (thread_.joinable()) thread_.join();
}

}  // namespace sim
