#include "platform/runtime.h"

namespace platform {

Event& stopRequested() {
    // Never destroyed: detached threads may still wait on it while the process ends.
    static Event& event = *new Event;
    return event;
}

void requestStop() {
    stopRequested().set();
}

}  // namespace platform
