// The inside of an event.
#pragma once

#include "handle.h"
#include "platform/event.h"

namespace platform {

struct Event::Impl {
    Impl();

    Handle handle;
};

}  // namespace platform
