// Events and the wait for one of several.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <span>

namespace platform {

// A manual-reset event, created non-signalled. set() and isSet() may be called from any thread; reset() and
// the waits belong to the thread that owns the event, except for an event that is never reset, on which any
// number of threads may wait. The event must outlive every call on it.
class Event {
  public:
    Event();
    ~Event();
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    void set();
    void reset();
    bool isSet() const;

    struct Impl;  // the host's
    Impl& impl() const { return *impl_; }

  private:
    std::unique_ptr<Impl> impl_;
};

// Waits until one of the events is signalled and returns its position, the lowest where several are; nothing
// when the time-out passed first. A zero time-out looks without waiting. A host with a coarser clock rounds
// the time-out up. Resets nothing. I/O that was started on a request (pipe.h) may be carried on by the thread
// that waits for the request's event.
std::optional<std::size_t> waitAny(std::span<Event* const> events, std::chrono::nanoseconds timeout);

}  // namespace platform
