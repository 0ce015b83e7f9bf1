#include "stop.h"

#include "platform/clock.h"
#include "platform/runtime.h"

namespace blescanner {

void StopSignal::stop() {
    stopped_ = true;
    event_.set();
}

bool StopSignal::stopped() const {
    return stopped_ || platform::isStopRequested();
}

void StopSignal::check() const {
    if (stopped()) throw Stopped();
}

void StopSignal::sleep(std::chrono::milliseconds duration) {
    platform::sleepFor(duration, {&event_});
    check();
}

void StopSignal::sleep(std::chrono::milliseconds duration, platform::Event& waker) {
    platform::sleepFor(duration, {&event_, &waker});
    check();
}

StopSignal& programEnd() {
    // Never destroyed: detached threads may still look at it while the process ends.
    static StopSignal& instance = *new StopSignal;
    return instance;
}

}  // namespace blescanner
