#include "value_source.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <map>

#include "delivery.h"
#include "error.h"

namespace bluez {

namespace {

using platform::PlatformError;

constexpr std::size_t kLongestValue = 512;  // of any attribute (Bluetooth Core, vol 3, F 3.2.9)
// BlueZ 5.66 answers at once, or never where the peripheral refuses (src/gatt-client.c,
// register_notify_io_cb).
constexpr std::chrono::seconds kAcquireTime{10};
constexpr const char* kNotifyAcquired = "NotifyAcquired";

// One packet is one value. bluetoothd fills the socket and this thread empties it. While the handler blocks,
// packets stay in the socket.
class DescriptorSource final : public ValueSource {
  public:
    DescriptorSource(Descriptor socket, Handler handler)
        : socket_(std::move(socket)), handler_(std::move(handler)), thread_([this] { run(); }) {}
    ~DescriptorSource() override {
        raise(stop_);
        thread_.join();
    }

  private:
    void run() {
        std::array<std::uint8_t, kLongestValue> value;
        while (const short ready = waitForValue()) {
            const ssize_t size = ::recv(socket_.get(), value.data(), value.size(), MSG_DONTWAIT);
            // recv returns 0 for an empty value and for the end; only the end has POLLHUP.
            if (size > 0 || (size == 0 && (ready & POLLHUP) == 0)) {
                handler_(std::span(value).first(static_cast<std::size_t>(size)));
            } else if (size == 0 || (errno != EAGAIN && errno != EINTR)) {
                return;  // bluetoothd closes its end with the link
            }
        }
    }

    // The events of the socket; 0 once this source is to stop.
    short waitForValue() const {
        std::array<pollfd, 2> targets{{{stop_.get(), POLLIN, 0}, {socket_.get(), POLLIN, 0}}};
        while (::poll(targets.data(), targets.size(), -1) < 0) {
            if (errno != EINTR) return 0;
        }
        return targets[0].revents == 0 ? targets[1].revents : short{0};
    }

    const Descriptor stop_ = newSignal();
    const Descriptor socket_;
    const Handler handler_;
    std::thread thread_;  // last: runs on the others
};

class SignalSource final : public ValueSource {
  public:
    SignalSource(const std::shared_ptr<Connection>& connection, std::string path, Handler handler)
        : connection_(connection),
          path_(std::move(path)),
          delivery_(std::move(handler)),
          changes_(connection->bus().onChange([this](const Change& change) {
              if (change.kind != Change::Kind::changed || change.path != path_) return;
              if (const auto* const value = change.get<std::vector<std::uint8_t>>("Value"))
                  delivery_.post(*value);
          })) {
        // Asked for after the listener was added, so that no value is missed.
        connection_->bus().call({path_, kGattCharacteristic, "StartNotify"});
    }
    // Even without a link: otherwise bluetoothd subscribes again by itself when the next link comes up.
    // Nobody listens here yet at that time, and the peripheral's first values would be lost.
    ~SignalSource() override {
        if (connection_->gone()) return;
        try {
            connection_->bus().send({path_, kGattCharacteristic, "StopNotify"}, [](const PlatformError*) {});
        } catch (const PlatformError&) {
            // The bus is gone, and with it the notifications.
        }
    }

  private:
    const std::shared_ptr<Connection> connection_;
    const std::string path_;
    Delivery<std::vector<std::uint8_t>> delivery_;
    platform::Subscription changes_;
};

Descriptor acquireNotify(Connection& connection, const std::string& path) {
    connection.awaitReturn(path, kNotifyAcquired);
    const std::map<std::string, sdbus::Variant> options;
    auto [socket, mtu] = connection.bus().call<sdbus::UnixFd, std::uint16_t>(
        {path, kGattCharacteristic, "AcquireNotify", kAcquireTime}, options);
    return Descriptor(socket.release());
}

}  // namespace

std::unique_ptr<ValueSource> subscribe(const std::shared_ptr<Connection>& connection, const std::string& path,
                                       ValueSource::Handler handler) {
    connection->requireLink();
    // BlueZ offers a descriptor for notifications only. Indications are few and come as signals.
    if (connection->bus().objects().get<bool>(path, kGattCharacteristic, kNotifyAcquired)) {
        try {
            return std::make_unique<DescriptorSource>(acquireNotify(*connection, path), std::move(handler));
        } catch (const PlatformError& error) {
            // Another program may hold the descriptor, or its notifications, which signals can share. If the
            // peripheral refuses, this call gets no answer, but the one for signals does.
            const bool otherWay =
                error.code() == kAccessDenied || error.code() == kInProgress || error.code() == kTimeout;
            if (!otherWay) throw;
        }
    }
    return std::make_unique<SignalSource>(connection, path, std::move(handler));
}

}  // namespace bluez
