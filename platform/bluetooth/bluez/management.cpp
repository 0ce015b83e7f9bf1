#include "management.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "descriptor.h"

namespace bluez {

namespace {

using platform::SystemError;

// The kernel's numbers (include/net/bluetooth, Documentation of the management interface); their header
// belongs to a library that nothing else here needs.
constexpr int kProtocolHci = 1;
constexpr std::uint16_t kNoDevice = 0xFFFF;
constexpr std::uint16_t kChannelControl = 3;
struct HciAddress {
    sa_family_t family = AF_BLUETOOTH;
    std::uint16_t device = kNoDevice;
    std::uint16_t channel = kChannelControl;
};

constexpr std::uint16_t kReadIndexList = 0x0003;
constexpr std::uint16_t kReadInfo = 0x0004;
constexpr std::uint16_t kCommandComplete = 0x0001;
constexpr std::uint16_t kCommandStatus = 0x0002;
constexpr std::size_t kHeaderSize = 6;               // code, index and length
constexpr std::size_t kReplySize = kHeaderSize + 3;  // ... of an event, command and status
constexpr timeval kReplyTime{2, 0};

constexpr std::size_t kVersionAt = 6;  // behind the address
constexpr std::size_t kNameAt = 20;    // behind manufacturer, settings and class
constexpr std::size_t kNameSize = 249;

std::uint16_t u16(std::span<const std::uint8_t> bytes, std::size_t at) {
    return static_cast<std::uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

// Sends a command without parameters and returns the values of its reply.
SystemError ask(std::uint16_t command, std::uint16_t index, std::vector<std::uint8_t>& values) {
    const Descriptor socket(::socket(AF_BLUETOOTH, SOCK_RAW | SOCK_CLOEXEC, kProtocolHci));
    if (!socket) return platform::lastSystemError();
    const HciAddress address;
    const std::array<std::uint16_t, 3> request{command, index, 0};
    if (::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &kReplyTime, sizeof kReplyTime) != 0 ||
        ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::send(socket.get(), request.data(), sizeof request, 0) < 0) {
        return platform::lastSystemError();
    }
    // Whatever else happens to the controllers is told on the same socket.
    for (;;) {
        std::array<std::uint8_t, 1024> buffer{};
        const ssize_t size = ::recv(socket.get(), buffer.data(), buffer.size(), 0);
        if (size < 0) return platform::lastSystemError();
        const auto event = std::span(buffer).first(static_cast<std::size_t>(size));
        if (event.size() < kReplySize || u16(event, kHeaderSize) != command) continue;
        const std::uint16_t code = u16(event, 0);
        if (code != kCommandComplete && code != kCommandStatus) continue;
        if (event[kReplySize - 1] != 0) return static_cast<SystemError>(EIO);
        values.assign(event.begin() + kReplySize, event.end());
        return SystemError::none;
    }
}

}  // namespace

SystemError readControllers(std::vector<std::uint16_t>& indices) {
    std::vector<std::uint8_t> values;
    const SystemError error = ask(kReadIndexList, kNoDevice, values);
    if (error != SystemError::none) return error;
    if (values.size() < 2 || values.size() < 2 + 2 * std::size_t{u16(values, 0)})
        return static_cast<SystemError>(EIO);
    for (std::size_t i = 0; i < u16(values, 0); ++i)
        indices.push_back(u16(values, 2 + 2 * i));
    std::sort(indices.begin(), indices.end());
    return SystemError::none;
}

SystemError readControllerInfo(std::uint16_t index, ControllerInfo& out) {
    std::vector<std::uint8_t> values;
    const SystemError error = ask(kReadInfo, index, values);
    if (error != SystemError::none) return error;
    return parseControllerInfo(values, out) ? SystemError::none : static_cast<SystemError>(EIO);
}

bool parseControllerInfo(std::span<const std::uint8_t> values, ControllerInfo& out) {
    if (values.size() < kNameAt + kNameSize) return false;
    out.version = values[kVersionAt];
    const auto name = values.subspan(kNameAt, kNameSize);
    out.name.assign(name.begin(), std::find(name.begin(), name.end(), 0));
    return true;
}

}  // namespace bluez
