// One outstanding operation of a request: accepting a client, reading or writing.
#pragma once

#include <poll.h>

#include <cstdint>
#include <memory>
#include <span>

#include "endpoint.h"
#include "event_impl.h"
#include "platform/event.h"
#include "platform/pipe.h"

namespace platform {

// An operation is tried when it is started and, while it is pending, again by the thread that waits for its
// event (event_impl.h) or asks for its result. It has no thread of its own and allocates nothing. Used by one
// thread at a time.
class Operation {
  public:
    explicit Operation(Event& event) : event_(event) {}

    bool pending() const { return socket_ != nullptr; }
    // A read that runs, or whose outcome nobody has fetched yet.
    bool reading() const { return (pending() || unfetched_) && kind_ == Kind::read; }
    // What the thread that carries the operation on has to wait for.
    pollfd pollTarget() const;

    // None of them may be called while the operation is pending.
    IoResult startAccept(std::shared_ptr<Endpoint> endpoint);
    IoResult startRead(std::shared_ptr<Socket> socket, std::span<std::uint8_t> buffer);
    IoResult startWrite(std::shared_ptr<Socket> socket, std::span<const std::uint8_t> buffer);
    // Finishes without having started.
    IoResult fail(SystemError error) { return finish({error, 0}); }

    // Tries once more; true when the operation has finished. Only while it is pending.
    bool carryOn();
    IoResult result();
    IoResult cancel();

  private:
    enum class Kind { accept, read, write };

    IoResult begin(Kind kind, std::shared_ptr<Socket> socket);
    IoResult finish(IoResult result);
    IoResult attempt();
    IoResult attemptRead();
    IoResult attemptWrite();
    IoResult failedCall(int code) const;

    Event& event_;
    Kind kind_ = Kind::read;
    std::shared_ptr<Socket> socket_;
    std::shared_ptr<Endpoint> endpoint_;
    std::span<std::uint8_t> readBuffer_;
    std::span<const std::uint8_t> writeBuffer_;
    std::size_t moved_ = 0;
    IoResult result_;
    bool unfetched_ = false;  // finished while it was waited for
};

struct IoRequest::Impl {
    Impl() { event.impl().operation = &operation; }

    Event event;
    Operation operation{event};
};

}  // namespace platform
