// The inside of an event, and how threads wait for one.
//
//     setting thread: set()                    waiting thread: waitAny()
//
//     1. set = true                            1. waiters + 1 in each event
//     2. waiters > 0? then write the           2. Is an event set? Then the wait is over.
//        eventfd, which wakes the poll         3. Poll. Try the operations whose sockets are ready: one that
//                                                 finishes sets its event. Then go to 2.
//
// - No wake-up is missed. The waiter counts itself before it looks, the setter stores before it looks for
//   waiters (all sequentially consistent). So the waiter sees `set`, or the setter sees the waiter.
// - An event that nobody waits for costs no system call. Setting takes no lock, so signal handlers may do it.
// - A pending operation (operation.h) has no thread of its own. The waiting thread polls its socket
//   instead of the event's eventfd, and tries it. Nobody else sets the event of a pending operation.
// - An event that was reset leaves its eventfd readable. The next waiter that this wakes empties it. The
//   eventfd of an event that is set is never emptied, so that all of its waiters wake.
#pragma once

#include <atomic>

#include "platform/event.h"
#include "posix/descriptor.h"

namespace platform {

class Operation;

struct Event::Impl {
    Impl();

    std::atomic<bool> set{false};
    std::atomic<int> waiters{0};
    Descriptor wake;                 // the eventfd
    Operation* operation = nullptr;  // of an IoRequest's event; fixed before the first wait
};

}  // namespace platform
