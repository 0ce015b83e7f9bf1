#include <algorithm>
#include <array>
#include <asio/buffer.hpp>
#include <asio/ip/tcp.hpp>
#include <vector>

#include "host.h"
#include "port.h"

namespace ziqble {

namespace {

using asio::ip::tcp;

constexpr std::size_t kReadAhead = 64 * 1024;

class TcpPort : public Port {
  public:
    TcpPort(asio::io_context& io, const std::string& address, std::uint16_t number, PortEvent tell);

    Awaitable<> run() override { co_await race(acceptClients(), readAhead()); }
    Awaitable<std::size_t> read(std::span<std::uint8_t> buffer) override;
    Awaitable<> write(ByteSpan& bytes) override;
    std::size_t unread() const override { return ahead_.size(); }

  private:
    Awaitable<> acceptClients();
    Awaitable<> readAhead();
    void take(tcp::socket client);
    void tellClosed();

    tcp::acceptor acceptor_;
    std::shared_ptr<tcp::socket> client_;
    bool sends_ = false;  // the client has not closed its half; without it the client may still read
    std::vector<std::uint8_t> ahead_;
    Mailbox<bool> filled_, drained_;  // something has become of ahead_ or of the client
};

TcpPort::TcpPort(asio::io_context& io, const std::string& address, std::uint16_t number, PortEvent tell)
    : Port(std::move(tell)), acceptor_(io), filled_(io.get_executor()), drained_(io.get_executor()) {
    asio::error_code error;
    const auto parsed = asio::ip::make_address(address, error);
    if (error) throw Failure(Code::usage, "--listen: \"" + address + "\" is no IP address");
    try {
        acceptor_ = tcp::acceptor(io, {parsed, number});
    } catch (const asio::system_error& problem) {
        throw Failure(Code::failed,
                      "cannot listen on " + address + " port " + std::to_string(number) + ": " +
                          problem.code().message(),
                      "Choose another port, or end the program that has it.");
    }
    tell_("port", "port " + std::to_string(number) + " on " + address);
    if (parsed.is_loopback()) return;
    tell_("warning",
          "warning: whoever reaches this port talks to the peripheral; there is no authentication");
}

Awaitable<> TcpPort::acceptClients() {
    for (;;) {
        asio::error_code error;
        tcp::socket client = co_await acceptor_.async_accept(into(error));
        if (!error) take(std::move(client));
        if (error) co_await sleepFor(100ms);  // an error that lasts must not keep everything else waiting
    }
}

void TcpPort::take(tcp::socket client) {
    asio::error_code ignored;
    const std::string from = client.remote_endpoint(ignored).address().to_string();
    if (client_ && sends_ && host::hasHungUp(*client_)) {
        tellClosed();
        tell_("dropped", "what the client that has gone had still on its way was not sent");
    }
    if (client_ && sends_) return tell_("refused", "a second client from " + from + " was sent away");
    if (client_) client_->close(ignored);  // a write to it ends then
    client.set_option(tcp::no_delay(true), ignored);
    client.set_option(asio::socket_base::keep_alive(true), ignored);
    client_ = std::make_shared<tcp::socket>(std::move(client));
    sends_ = true;
    tell_("opened", "a client from " + from + " connected");
    tellDropped();
    drained_.put(true);
}

void TcpPort::tellClosed() {
    if (std::exchange(sends_, false)) tell_("closed", "the client has gone, or sends no more");
}

// Whether there is a link or not: so it is noticed that a client leaves.
Awaitable<> TcpPort::readAhead() {
    std::array<std::uint8_t, 16384> buffer;
    for (;;) {
        while (!sends_ || ahead_.size() >= kReadAhead)
            co_await drained_.take();
        drained_.clear();
        asio::error_code error;
        const auto client = client_;
        const std::size_t count = co_await client->async_read_some(asio::buffer(buffer), into(error));
        ahead_.insert(ahead_.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(count));
        filled_.put(true);
        if (!error || error == asio::error::operation_aborted || client != client_) continue;
        tellClosed();
        if (error != asio::error::eof) client_.reset();
    }
}

Awaitable<std::size_t> TcpPort::read(std::span<std::uint8_t> buffer) {
    while (ahead_.empty())
        co_await filled_.take();
    filled_.clear();
    const std::size_t count = std::min(buffer.size(), ahead_.size());
    const auto end = ahead_.begin() + static_cast<std::ptrdiff_t>(count);
    std::copy(ahead_.begin(), end, buffer.begin());
    ahead_.erase(ahead_.begin(), end);
    drained_.put(true);
    co_return count;
}

Awaitable<> TcpPort::write(ByteSpan& bytes) {
    while (!bytes.empty()) {
        const auto client = client_;
        if (!client) co_return drop(bytes);
        asio::error_code error;
        const std::size_t count =
            co_await client->async_write_some(asio::buffer(bytes.data(), bytes.size()), into(error));
        bytes = bytes.subspan(count);
        if (!error || error == asio::error::operation_aborted || client != client_) continue;
        tellClosed();
        client_.reset();
    }
}

}  // namespace

std::unique_ptr<Port> makeTcpPort(asio::io_context& io, const std::string& address, std::uint16_t number,
                                  PortEvent tell) {
    return std::make_unique<TcpPort>(io, address, number, std::move(tell));
}

}  // namespace ziqble
