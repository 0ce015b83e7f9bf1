// How work that has been stopped ends: at a checkpoint, by an exception that only the top of the work
// catches.
#pragma once

#include <atomic>
#include <chrono>

#include "platform/event.h"

namespace blescanner {

// Thrown at a checkpoint. Not an error, so no std::exception: what handles failures lets it pass.
struct Stopped {};

// One for each piece of work that can be stopped. The program's end stops all of them.
//
// Threads: any.
class StopSignal {
  public:
    // For good. Ends the sleep that is under way, if there is one.
    void stop();
    bool stopped() const;

    // The checkpoint: throws Stopped. Stands before every step that reaches outside.
    void check() const;

    // A prescribed sleep with a checkpoint behind it. The second form also ends when the event is signalled.
    void sleep(std::chrono::milliseconds duration);
    void sleep(std::chrono::milliseconds duration, platform::Event& waker);

  private:
    std::atomic<bool> stopped_ = false;
    platform::Event event_;
};

// Of the shell's own work, which only the program's end stops.
StopSignal& programEnd();

}  // namespace blescanner
