// File descriptors as signals between threads that wait in poll().
#pragma once

#include <poll.h>
#include <sys/eventfd.h>

#include "platform/error.h"
#include "posix/descriptor.h"

namespace bluez {

using platform::Descriptor;

// Readable from the first signal on. Throws PlatformError where the process has no descriptor left.
inline Descriptor newSignal() {
    Descriptor signal(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!signal) throw platform::PlatformError(platform::kEFail, "no descriptor left");
    return signal;
}
inline void raise(const Descriptor& signal) {
    const eventfd_t one = 1;
    static_cast<void>(::eventfd_write(signal.get(), one));
}

}  // namespace bluez
