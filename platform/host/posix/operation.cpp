#include "operation.h"

#include <sys/socket.h>

#include <cerrno>

#include "system_error.h"

namespace platform {

namespace {

constexpr IoResult kPending{SystemError::ioPending, 0};

bool wouldBlock(int code) {
    return code == EAGAIN || code == EWOULDBLOCK;
}

}  // namespace

pollfd Operation::pollTarget() const {
    return {socket_->fd(), static_cast<short>(kind_ == Kind::write ? POLLOUT : POLLIN), 0};
}

IoResult Operation::startAccept(std::shared_ptr<Endpoint> endpoint) {
    auto listener = endpoint->listener();
    if (!listener) return fail(SystemError::operationAborted);
    if (endpoint->client()) return fail(SystemError::pipeConnected);
    // Not tried at once: a client that is already waiting counts as one that comes now.
    kind_ = Kind::accept;
    socket_ = std::move(listener);
    endpoint_ = std::move(endpoint);
    moved_ = 0;
    event_.reset();
    return kPending;
}

IoResult Operation::startRead(std::shared_ptr<Socket> socket, std::span<std::uint8_t> buffer) {
    readBuffer_ = buffer;
    return begin(Kind::read, std::move(socket));
}

IoResult Operation::startWrite(std::shared_ptr<Socket> socket, std::span<const std::uint8_t> buffer) {
    writeBuffer_ = buffer;
    return begin(Kind::write, std::move(socket));
}

IoResult Operation::begin(Kind kind, std::shared_ptr<Socket> socket) {
    kind_ = kind;
    socket_ = std::move(socket);
    moved_ = 0;
    const IoResult first = attempt();
    if (first.error != SystemError::ioPending) return finish(first);
    event_.reset();
    return kPending;
}

IoResult Operation::finish(IoResult result) {
    socket_.reset();
    endpoint_.reset();
    result_ = result;
    event_.set();
    return result;
}

bool Operation::carryOn() {
    const IoResult next = attempt();
    if (next.error == SystemError::ioPending) return false;
    finish(next);
    unfetched_ = true;
    return true;
}

IoResult Operation::result() {
    if (pending() && !carryOn()) return kPending;
    unfetched_ = false;
    return result_;
}

IoResult Operation::cancel() {
    if (pending()) finish({SystemError::operationAborted, moved_});
    unfetched_ = false;
    return result_;
}

IoResult Operation::attempt() {
    switch (kind_) {
        case Kind::accept:
            return {endpoint_->accept(), 0};
        case Kind::read:
            return attemptRead();
        case Kind::write:
            return attemptWrite();
    }
    return kPending;
}

IoResult Operation::attemptRead() {
    for (;;) {
        const ssize_t count = ::recv(socket_->fd(), readBuffer_.data(), readBuffer_.size(), MSG_DONTWAIT);
        if (count > 0) return {SystemError::none, static_cast<std::size_t>(count)};
        if (count == 0) return failedCall(EPIPE);
        if (wouldBlock(errno)) return kPending;
        if (errno != EINTR) return failedCall(errno);
    }
}

IoResult Operation::attemptWrite() {
    while (moved_ < writeBuffer_.size()) {
        const auto rest = writeBuffer_.subspan(moved_);
        const ssize_t count = ::send(socket_->fd(), rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count >= 0) {
            moved_ += static_cast<std::size_t>(count);
        } else if (wouldBlock(errno)) {
            return kPending;
        } else if (errno != EINTR) {
            return failedCall(errno);
        }
    }
    return {SystemError::none, moved_};
}

IoResult Operation::failedCall(int code) const {
    return {socket_->aborted() ? SystemError::operationAborted : fromErrno(code), moved_};
}

}  // namespace platform
