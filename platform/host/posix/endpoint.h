// The sockets of a pipe, shared by the pipe and the operations that were started on it.
#pragma once

#include <sys/socket.h>

#include <atomic>
#include <memory>
#include <mutex>

#include "platform/error.h"
#include "platform/pipe.h"
#include "posix/descriptor.h"
#include "socket_file.h"

namespace platform {

// Whoever uses a socket holds a reference to it, so that its number cannot name another file meanwhile.
class Socket {
  public:
    explicit Socket(Descriptor descriptor) : descriptor_(std::move(descriptor)) {}

    int fd() const { return descriptor_.get(); }

    // Both wake every thread that polls the socket; any thread.
    void shutDown() noexcept { ::shutdown(fd(), SHUT_RDWR); }
    void abort() noexcept {
        aborted_.store(true);
        shutDown();
    }
    // The pipe was closed, in contrast to: the client has left or was disconnected.
    bool aborted() const noexcept { return aborted_.load(); }

  private:
    Descriptor descriptor_;
    std::atomic<bool> aborted_{false};
};

// Threads: any.
class Endpoint {
  public:
    Endpoint(Descriptor listener, std::unique_ptr<SocketFile> file);
    ~Endpoint();

    // Null once closed.
    std::shared_ptr<Socket> listener() const;
    // Null when there is none.
    std::shared_ptr<Socket> client() const;

    // Takes a waiting client, without waiting: ioPending when there is none, pipeConnected when one is
    // connected.
    SystemError accept();
    // Likewise, but only a client that came before the pipe was served for the first time; otherwise
    // ioPending.
    SystemError acceptEarly();

    void disconnect();
    void close();

  private:
    SystemError acceptLocked();

    mutable std::mutex mutex_;
    std::shared_ptr<Socket> listener_;
    std::shared_ptr<Socket> client_;
    std::unique_ptr<SocketFile> file_;
    bool fresh_ = true;
};

}  // namespace platform
