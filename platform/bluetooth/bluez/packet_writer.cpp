#include "packet_writer.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <map>

#include "error.h"

namespace bluez {

namespace {

using platform::PlatformError;

constexpr std::size_t kWriteOverhead = 3;  // opcode and handle (Bluetooth Core, vol 3, F 3.4.5.3)
constexpr std::size_t kLongestRead = 512;  // of bluetoothd from the socket (BlueZ 5.66, gatt-client.c)
// The same as for a call: if bluetoothd takes nothing for that long, it will not.
constexpr std::chrono::milliseconds kWriteTime = kCallTime;

constexpr const char* kWriteAcquired = "WriteAcquired";

}  // namespace

PacketWriter::Outcome PacketWriter::write(std::span<const std::uint8_t> value) {
    auto channel = this->channel();
    if (!channel) return Outcome::noDescriptor;
    // bluetoothd takes an empty packet for the end, and drops one that is too long for the link.
    const bool tooLong = value.size() > channel->longest;
    if (channel->socket && !tooLong && !value.empty()) {
        send(*channel, value);
        return Outcome::sent;
    }
    if (channel->socket) giveBack(std::move(channel));
    return tooLong ? Outcome::tooLong : Outcome::noDescriptor;
}

void PacketWriter::send(const Channel& channel, std::span<const std::uint8_t> value) const {
    const int socket = channel.socket.get();
    while (::send(socket, value.data(), value.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
        if (errno == EINTR || (errno == EAGAIN && waitUntilWritable(socket))) continue;
        throw PlatformError(connection_->gone() ? platform::kRoEClosed : kNotConnected);
    }
}

// Null: there is none for this characteristic.
std::shared_ptr<const PacketWriter::Channel> PacketWriter::channel() {
    {
        const std::lock_guard lock(mutex_);
        if (tried_) return channel_;
    }
    auto acquired = acquire();
    const std::lock_guard lock(mutex_);
    if (!tried_) channel_ = std::move(acquired);
    tried_ = true;
    return channel_;
}

std::shared_ptr<const PacketWriter::Channel> PacketWriter::acquire() const {
    connection_->requireLink();
    if (!connection_->bus().objects().get<bool>(path_, kGattCharacteristic, kWriteAcquired)) return nullptr;
    connection_->awaitReturn(path_, kWriteAcquired);
    try {
        const std::map<std::string, sdbus::Variant> options;
        auto [socket, mtu] = connection_->bus().call<sdbus::UnixFd, std::uint16_t>(
            {path_, kGattCharacteristic, "AcquireWrite"}, options);
        const std::size_t longest = std::max<std::size_t>(mtu, kWriteOverhead) - kWriteOverhead;
        return std::make_shared<const Channel>(
            Channel{Descriptor(socket.release()), std::min(longest, kLongestRead)});
    } catch (const PlatformError& error) {
        // Another program holds it, or the characteristic takes no writes without response.
        if (error.code() != kAccessDenied && error.code() != kNotImplemented) throw;
        return nullptr;
    }
}

// It is not acquired again: after one value that is too long there will be others. bluetoothd refuses other
// writes while it is acquired, and notices a little later that it was given back.
void PacketWriter::giveBack(std::shared_ptr<const Channel> channel) {
    {
        const std::lock_guard lock(mutex_);
        channel_ = std::make_shared<const Channel>(Channel{Descriptor(), channel->longest});
    }
    channel.reset();
    connection_->awaitReturn(path_, kWriteAcquired);
}

bool PacketWriter::waitUntilWritable(int socket) const {
    std::array<pollfd, 2> targets{{{connection_->bus().closedDescriptor(), POLLIN, 0}, {socket, POLLOUT, 0}}};
    const int ready = ::poll(targets.data(), targets.size(), static_cast<int>(kWriteTime.count()));
    if (ready > 0 && targets[0].revents != 0) throw PlatformError(platform::kECancelled);
    return ready > 0 || (ready < 0 && errno == EINTR);
}

}  // namespace bluez
