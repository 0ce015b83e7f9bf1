#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "pipe.h"

using namespace std::chrono_literals;

namespace {

bool isTerminal(const std::string& name) {
    struct stat status {};
    return ::stat(name.c_str(), &status) == 0 && S_ISCHR(status.st_mode);
}

}  // namespace

struct Pipe::Impl {
    int socket = -1;

    ~Impl() { ::close(socket); }
};

Pipe::Pipe(const std::string& name) : impl_(std::make_unique<Impl>()) {
    if (isTerminal(name)) {
        impl_->socket = ::open(name.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        return;
    }
    impl_->socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ::signal(SIGPIPE, SIG_IGN);
    const timeval stall{kStallSeconds, 0};
    ::setsockopt(impl_->socket, SOL_SOCKET, SO_SNDTIMEO, &stall, sizeof stall);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (name.size() >= sizeof address.sun_path) throw std::runtime_error("path too long: " + name);
    std::memcpy(address.sun_path, name.c_str(), name.size() + 1);
    const auto end = std::chrono::steady_clock::now() + kStallSeconds * 1s;
    while (::connect(impl_->socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        if ((errno != ENOENT && errno != ECONNREFUSED) || std::chrono::steady_clock::now() > end)
            throw std::runtime_error("cannot connect to " + name + ": " + std::strerror(errno));
        std::this_thread::sleep_for(5ms);
    }
}

Pipe::~Pipe() = default;

std::size_t Pipe::readSome(std::span<std::uint8_t> buffer) {
    pollfd wait{impl_->socket, POLLIN, 0};
    if (::poll(&wait, 1, kStallSeconds * 1000) <= 0)
        throw std::runtime_error("nothing was received for too long");
    const ssize_t count = ::read(impl_->socket, buffer.data(), buffer.size());
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

bool Pipe::writeAll(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(impl_->socket, bytes.data(), bytes.size());
        if (count <= 0) return false;
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return true;
}
