#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <asio/buffer.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "port.h"

namespace ziqble {

namespace fs = std::filesystem;

namespace {

// The system does not tell when a program opens the other end. While nobody reads, without a link, it is
// looked at less often.
constexpr auto kLookForProgram = 20ms;
constexpr auto kLookAtTimes = 200ms;

class PtyPort : public Port {
  public:
    PtyPort(asio::io_context& io, const std::string& link, PortEvent tell);
    ~PtyPort() override;

    Awaitable<> run() override {
        for (;; co_await sleepFor(kLookAtTimes))
            hasProgram();
    }
    Awaitable<std::size_t> read(std::span<std::uint8_t> buffer) override;
    Awaitable<> write(ByteSpan& bytes) override;

  private:
    [[noreturn]] void fail() const {
        throw Failure(Code::failed, "cannot make the serial port " + link_ + ": " + std::strerror(errno),
                      "There has to be a folder for it, and nothing of that name yet but a link to a "
                      "terminal that is no "
                      "more.");
    }
    void makeRaw();
    bool hasProgram();

    std::string link_;
    std::string name_;  // what the link leads to
    asio::posix::stream_descriptor master_;
    bool open_ = false;  // a program has it
};

PtyPort::PtyPort(asio::io_context& io, const std::string& link, PortEvent tell)
    : Port(std::move(tell)), link_(link), master_(io) {
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (master < 0) fail();
    master_.assign(master);
    if (::grantpt(master) != 0 || ::unlockpt(master) != 0) fail();
    name_ = ::ptsname(master);
    makeRaw();
    // Once opened and closed, it tells whether a program has it.
    ::close(::open(name_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    // A link to a terminal that is no more was left behind by a dead process, whose number may be this one's
    // now; nothing else is replaced.
    std::error_code error;
    const fs::path before = fs::read_symlink(link_, error);
    if (before == name_ || (before.parent_path() == "/dev/pts" && !fs::exists(before, error)))
        fs::remove(link_, error);
    if (::symlink(name_.c_str(), link_.c_str()) != 0) fail();
    tell_("port", "serial port " + link_);
}

PtyPort::~PtyPort() {
    std::error_code error;
    if (fs::read_symlink(link_, error) == name_) fs::remove(link_, error);  // else it is another's by now
}

void PtyPort::makeRaw() {
    termios settings{};
    ::tcgetattr(master_.native_handle(), &settings);
    ::cfmakeraw(&settings);
    ::tcsetattr(master_.native_handle(), TCSANOW, &settings);
}

bool PtyPort::hasProgram() {
    pollfd look{master_.native_handle(), POLLIN, 0};
    const bool open = ::poll(&look, 1, 0) >= 0 && (look.revents & POLLHUP) == 0;
    if (std::exchange(open_, open) == open) return open;
    tell_(open ? "opened" : "closed", open ? "a program opened the port" : "the program closed the port");
    if (open) {
        tellDropped();
    } else {
        // The next program gets neither its predecessor's settings nor what that one has not read.
        makeRaw();
        ::tcflush(master_.native_handle(), TCOFLUSH);
    }
    return open;
}

Awaitable<std::size_t> PtyPort::read(std::span<std::uint8_t> buffer) {
    for (;;) {
        asio::error_code error;
        const std::size_t count =
            co_await master_.async_read_some(asio::buffer(buffer.data(), buffer.size()), into(error));
        if (!error) co_return count;
        while (!hasProgram())
            co_await sleepFor(kLookForProgram);
        co_await sleepFor(0s);  // an error that lasts must not keep everything else waiting
    }
}

Awaitable<> PtyPort::write(ByteSpan& bytes) {
    while (!bytes.empty()) {
        if (!open_ && !hasProgram()) co_return drop(bytes);  // asking is dear: only when it may be new
        asio::error_code error;
        const std::size_t count =
            co_await master_.async_write_some(asio::buffer(bytes.data(), bytes.size()), into(error));
        bytes = bytes.subspan(count);
        if (error) co_await sleepFor(0s);
    }
}

}  // namespace

std::unique_ptr<Port> makePtyPort(asio::io_context& io, const std::string& link, PortEvent tell) {
    return std::make_unique<PtyPort>(io, link, std::move(tell));
}

}  // namespace ziqble
