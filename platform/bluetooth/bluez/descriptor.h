// Ownership of a file descriptor, and waiting for one.
#pragma once

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <utility>

namespace bluez {

class Descriptor {
  public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

  private:
    int fd_ = -1;
};

// Readable from the first signal on.
inline Descriptor newSignal() {
    return Descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}
inline void raise(const Descriptor& signal) {
    const eventfd_t one = 1;
    static_cast<void>(::eventfd_write(signal.get(), one));
}

}  // namespace bluez
