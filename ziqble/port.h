// What "serve" offers to a program. It outlives links and programs.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "context.h"

namespace ziqble {

// What happens to the port: "port" (it is there), "opened", "closed", "refused", "dropped", "warning", and a
// text about it.
using PortEvent = std::function<void(const std::string& event, const std::string& text)>;

class Port {
  public:
    virtual ~Port() = default;

    // Runs beside reading and writing, without end.
    virtual Awaitable<> run() = 0;
    // At least one byte from the program; waits for a program, and for its bytes.
    virtual Awaitable<std::size_t> read(std::span<std::uint8_t> buffer) = 0;
    // Takes off the front of `bytes` what the program has got, also when it is cancelled. What comes while no
    // program has the port open is dropped, as on a serial port.
    virtual Awaitable<> write(ByteSpan& bytes) = 0;

    // Bytes that the program has sent and read() has not given, as far as they are known.
    virtual std::size_t unread() const { return 0; }

    // Tells how many bytes were dropped since the last time, if any.
    void tellDropped() {
        if (dropped_ > 0)
            tell_("dropped", std::to_string(dropped_) + " bytes came while no program had the port open");
        dropped_ = 0;
    }

  protected:
    explicit Port(PortEvent tell) : tell_(std::move(tell)) {}
    void drop(ByteSpan& bytes) {
        dropped_ += bytes.size();
        bytes = {};
    }

    PortEvent tell_;

  private:
    std::uint64_t dropped_ = 0;
};

// A raw pseudo terminal, and a symbolic link to it that goes with the object. Not on Windows. Throws Failure.
std::unique_ptr<Port> makePtyPort(asio::io_context& io, const std::string& link, PortEvent tell);
// One client at a time. Throws Failure.
std::unique_ptr<Port> makeTcpPort(asio::io_context& io, const std::string& address, std::uint16_t number,
                                  PortEvent tell);

}  // namespace ziqble
