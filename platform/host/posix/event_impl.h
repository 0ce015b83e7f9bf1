// The inside of an event.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <span>

#include "platform/event.h"
#include "posix/descriptor.h"

namespace platform {

class Operation;

// The state is in `set`; the eventfd only wakes threads that poll, so an event that nobody waits for costs no
// system call. Setting takes no lock, which makes it safe in a signal handler.
//
// No wake-up is missed: a waiter registers before it looks at `set` for the last time, and a setter stores
// `set` before it looks for waiters (both sequentially consistent).
struct Event::Impl {
    Impl();

    std::atomic<bool> set{false};
    std::atomic<int> waiters{0};
    Descriptor wake;
    // Of an IoRequest's event: the operation that the waiting thread carries on. Fixed before the first wait.
    Operation* operation = nullptr;
};

}  // namespace platform
