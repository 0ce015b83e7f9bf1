// Pipes over Unix stream sockets.

#include "platform/pipe.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "endpoint.h"
#include "operation.h"
#include "pipe_name.h"
#include "platform/text.h"
#include "socket_file.h"
#include "system_error.h"

namespace platform {

namespace {

constexpr auto kNotConnected = static_cast<SystemError>(ENOTCONN);
constexpr auto kStillBusy = static_cast<SystemError>(EALREADY);

class UnixPipe : public Pipe {
  public:
    UnixPipe(Descriptor listener, std::unique_ptr<SocketFile> file)
        : endpoint_(std::make_shared<Endpoint>(std::move(listener), std::move(file))) {}
    // Pending operations hold the endpoint, so it does not close by itself.
    ~UnixPipe() override { endpoint_->close(); }

    SystemError startConnect(IoRequest& request) override;
    IoResult startRead(IoRequest& request, std::span<std::uint8_t> buffer) override;
    IoResult startWrite(IoRequest& request, std::span<const std::uint8_t> buffer) override;
    IoResult result(IoRequest& request) override { return request.impl().operation.result(); }
    IoResult cancel(IoRequest& request) override { return request.impl().operation.cancel(); }
    // What was written is in the client's receive queue and outlives our end of the connection.
    bool flush(std::chrono::milliseconds) override { return true; }
    bool clientLeft() const override;
    void disconnect() override { endpoint_->disconnect(); }
    void close() override { endpoint_->close(); }
    bool isOpen() const override { return endpoint_->listener() != nullptr; }
    ClientIdentity client() const override;

  private:
    SystemError noClient() const { return isOpen() ? kNotConnected : SystemError::operationAborted; }

    std::shared_ptr<Endpoint> endpoint_;
};

SystemError UnixPipe::startConnect(IoRequest& request) {
    Operation& operation = request.impl().operation;
    if (operation.pending()) return kStillBusy;
    const SystemError early = endpoint_->acceptEarly();
    if (early == SystemError::none) return operation.fail(SystemError::pipeConnected).error;
    if (early != SystemError::ioPending) return operation.fail(early).error;
    return operation.startAccept(endpoint_).error;
}

IoResult UnixPipe::startRead(IoRequest& request, std::span<std::uint8_t> buffer) {
    Operation& operation = request.impl().operation;
    if (operation.reading()) return {SystemError::ioPending, 0};
    if (operation.pending()) return {kStillBusy, 0};
    auto client = endpoint_->client();
    if (!client) return operation.fail(noClient());
    return operation.startRead(std::move(client), buffer);
}

IoResult UnixPipe::startWrite(IoRequest& request, std::span<const std::uint8_t> buffer) {
    Operation& operation = request.impl().operation;
    if (operation.pending()) return {kStillBusy, 0};
    auto client = endpoint_->client();
    if (!client) return operation.fail(noClient());
    return operation.startWrite(std::move(client), buffer);
}

// Without being asked for anything, poll tells only that the client's end is closed.
bool UnixPipe::clientLeft() const {
    const auto client = endpoint_->client();
    if (!client) return true;
    pollfd end{client->fd(), 0, 0};
    return ::poll(&end, 1, 0) > 0;
}

ClientIdentity UnixPipe::client() const {
    const auto client = endpoint_->client();
    if (!client) return {};

    ClientIdentity identity;
    ucred peer{};
    socklen_t size = sizeof peer;
    // The process number is 0 for a client in a process name space that we cannot see.
    if (::getsockopt(client->fd(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.pid > 0) {
        const pid_t session = ::getsid(peer.pid);
        identity.processId = static_cast<std::uint32_t>(peer.pid);
        identity.sessionId = session > 0 ? static_cast<std::uint32_t>(session) : 0;
    }
    std::array<char, 256> host{};
    if (::gethostname(host.data(), host.size() - 1) == 0) identity.computerName = widen(host.data());
    return identity;
}

}  // namespace

IoRequest::IoRequest() : impl_(std::make_unique<Impl>()) {}
IoRequest::~IoRequest() = default;
Event& IoRequest::event() {
    return impl_->event;
}

Pipe::Created Pipe::create(std::wstring_view name) {
    const SocketPath path = socketPath(name);
    if (path.error != SystemError::none) return {nullptr, path.error};
    BoundSocket bound = bindSocket(path.path);
    if (bound.error != SystemError::none) return {nullptr, bound.error};
    return {std::make_shared<UnixPipe>(std::move(bound.listener), std::move(bound.file)), SystemError::none};
}

}  // namespace platform
