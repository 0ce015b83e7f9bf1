// The inside of a request: one overlapped operation.
#pragma once

#include <cstdint>
#include <span>

#include "event_impl.h"
#include "platform/pipe.h"
#include "system_error.h"

namespace platform {

// Threads: one at a time. The calls that take the pipe's handle are made with the handle held open.
struct IoRequest::Impl {
    enum class State { idle, connecting, reading, writing };

    // Started and its outcome not fetched yet: what a finished read has brought must not be lost.
    bool pending() const { return state != State::idle; }

    // None of the three may be called while the request is pending.
    SystemError startConnect(HANDLE pipe);
    IoResult startRead(HANDLE pipe, std::span<std::uint8_t> buffer);
    IoResult startWrite(HANDLE pipe, std::span<const std::uint8_t> buffer);
    // Finishes without having started.
    IoResult fail(SystemError error);

    // The outcome; waits for it where asked to. The system keeps it in the record, so the pipe may be closed.
    IoResult fetch(bool wait);

    Event event;
    OVERLAPPED overlapped{};
    State state = State::idle;
    IoResult result;

  private:
    void prepare(State next);
    IoResult started(BOOL succeeded);
    IoResult finish(IoResult outcome);
};

}  // namespace platform
