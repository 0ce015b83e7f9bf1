#include "endpoint.h"

#include <cerrno>

#include "system_error.h"

namespace platform {

namespace {

// The pipe's buffer holds 4096 bytes. The kernel charges every write with at least 768 bytes, so that a
// buffer of that number would be full after eleven short notifications: asked for is room for 4096 bytes in
// writes of 20, the profile's smallest MTU. Longer writes find room for more (some 30 kB in writes of 244).
// The kernel doubles the number by itself. How much the client may send ahead is up to the client's socket.
constexpr int kSendBuffer = 4096 / 20 * 768 / 2;

}  // namespace

Endpoint::Endpoint(Descriptor listener, std::unique_ptr<SocketFile> file)
    : listener_(std::make_shared<Socket>(std::move(listener))), file_(std::move(file)) {}

Endpoint::~Endpoint() {
    close();
}

std::shared_ptr<Socket> Endpoint::listener() const {
    const std::lock_guard lock(mutex_);
    return listener_;
}

std::shared_ptr<Socket> Endpoint::client() const {
    const std::lock_guard lock(mutex_);
    return client_;
}

SystemError Endpoint::accept() {
    const std::lock_guard lock(mutex_);
    return acceptLocked();
}

SystemError Endpoint::acceptEarly() {
    const std::lock_guard lock(mutex_);
    return fresh_ ? acceptLocked() : SystemError::ioPending;
}

// The lock is held over a call that does not block, so that a client cannot arrive in a pipe that is being
// closed.
SystemError Endpoint::acceptLocked() {
    if (!listener_) return SystemError::operationAborted;
    if (client_) return SystemError::pipeConnected;
    Descriptor client;
    do {
        client = Descriptor(::accept4(listener_->fd(), nullptr, nullptr, SOCK_CLOEXEC));
    } while (!client && (errno == EINTR || errno == ECONNABORTED));
    if (!client) return fromErrno(errno);

    ::setsockopt(client.get(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
    client_ = std::make_shared<Socket>(std::move(client));
    fresh_ = false;
    return SystemError::none;
}

void Endpoint::disconnect() {
    std::shared_ptr<Socket> client;
    {
        const std::lock_guard lock(mutex_);
        client.swap(client_);
        fresh_ = false;
    }
    if (client) client->shutDown();
}

void Endpoint::close() {
    std::shared_ptr<Socket> client;
    std::shared_ptr<Socket> listener;
    std::unique_ptr<SocketFile> file;
    {
        const std::lock_guard lock(mutex_);
        client.swap(client_);
        listener.swap(listener_);
        file.swap(file_);
    }
    if (client) client->abort();
    if (listener) listener->abort();
}

}  // namespace platform
