#include "platform/runtime.h"

#include <atomic>

namespace platform {

namespace {
std::atomic<bool> requested = false;
}

Event& stopRequested() {
    // Never destroyed: detached threads may still wait on it while the process ends.
    static Event& event = *new Event;
    return event;
}

bool isStopRequested() noexcept {
    return requested;
}

void requestStop() {
    requested = true;
    stopRequested().set();
}

}  // namespace platform
