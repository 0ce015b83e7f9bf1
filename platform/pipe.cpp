#include "platform/pipe.h"

#include <array>
#include <chrono>

#include "platform/runtime.h"

namespace platform {

SystemError Pipe::connect() {
    IoRequest arrival;
    const SystemError started = startConnect(arrival);
    if (started == SystemError::pipeConnected) return SystemError::none;
    if (started != SystemError::ioPending) return started;

    const std::array<Event*, 2> events{&stopRequested(), &arrival.event()};
    while (!waitAny(events, std::chrono::hours(24)))
        continue;
    return cancel(arrival).error;
}

IoResult Pipe::finish(IoRequest& request, std::chrono::milliseconds timeout) {
    const std::array<Event*, 2> events{&request.event(), &stopRequested()};
    waitAny(events, timeout);
    return cancel(request);
}

}  // namespace platform
