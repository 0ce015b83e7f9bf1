// The inside of an event.
#pragma once

#include "platform/event.h"
#include "platform/host/windows/handle.h"

namespace platform {

struct Event::Impl {
    Impl();

    Handle handle;
};

}  // namespace platform
