#include "trace.h"

#include <cerrno>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "context.h"

namespace ziqble {

namespace {

template <class... Numbers>
std::string packed(Numbers... numbers) {
    std::string bytes;
    (bytes.append(reinterpret_cast<const char*>(&numbers), sizeof numbers), ...);
    return bytes;
}

// A block of pcapng: type, length, contents up to a multiple of four, length again; numbers in the order of
// bytes of the machine that writes.
std::string block(std::uint32_t type, const std::string& contents) {
    const auto length = static_cast<std::uint32_t>(contents.size() + 3 * sizeof type);
    return packed(type, length) + contents + packed(length);
}

std::string fileHeader() {
    constexpr std::uint32_t kByteOrder = 0x1A2B3C4D, kNoLimit = 0;
    constexpr std::uint16_t kMajor = 1, kMinor = 0, kReserved = 0;
    constexpr std::int64_t kLengthUnknown = -1;
    constexpr std::uint16_t kUserLink = 147;  // LINKTYPE_USER0: bytes of a kind that pcapng has no number for
    return block(0x0A0D0D0A, packed(kByteOrder, kMajor, kMinor, kLengthUnknown)) +
           block(1, packed(kUserLink, kReserved, kNoLimit));
}

std::string packet(Direction direction, ByteSpan bytes) {
    constexpr std::uint32_t kInterface = 0, kEndOfOptions = 0;
    constexpr std::uint16_t kFlags = 2, kFlagsLength = 4;
    using Microseconds = std::chrono::microseconds;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto time = static_cast<std::uint64_t>(std::chrono::duration_cast<Microseconds>(now).count());
    const auto length = static_cast<std::uint32_t>(bytes.size());
    std::string payload(bytes.begin(), bytes.end());
    payload.resize((payload.size() + 3) / 4 * 4);
    return block(6, packed(kInterface, static_cast<std::uint32_t>(time >> 32),
                           static_cast<std::uint32_t>(time), length, length) +
                        payload +
                        packed(kFlags, kFlagsLength, static_cast<std::uint32_t>(direction), kEndOfOptions));
}

void writeHex(Direction direction, ByteSpan bytes) {
    std::ostringstream line;
    line << timeStamp() << (direction == Direction::toPeripheral ? " >" : " <") << std::hex
         << std::setfill('0');
    for (const std::uint8_t byte : bytes)
        line << ' ' << std::setw(2) << unsigned{byte};
    std::cerr << line.str() << std::endl;
}

}  // namespace

Trace::Trace(const std::string& target) : hex_(target == "-") {
    if (target.empty() || hex_) return;
    file_.open(target, std::ios::binary);
    file_ << fileHeader() << std::flush;
    if (!file_) throw Failure(Code::failed, "cannot write the trace " + target + ": " + std::strerror(errno));
}

void Trace::record(Direction direction, ByteSpan bytes) {
    if (hex_) writeHex(direction, bytes);
    if (!file_.is_open()) return;
    file_ << packet(direction, bytes) << std::flush;
    if (file_) return;
    say("the trace ends here: it cannot be written any more. Is the disk full?");
    file_.close();
}

}  // namespace ziqble
