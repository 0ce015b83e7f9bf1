#include "platform/address.h"

#include <array>
#include <cstdio>

namespace platform {

std::optional<std::uint64_t> parseAddress(std::string_view text) {
    const std::string scanned(text);
    std::array<unsigned char, 6> bytes{};
    int consumed = 0;
    const int fields = std::sscanf(scanned.c_str(), "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx%n", &bytes[0], &bytes[1],
                                   &bytes[2], &bytes[3], &bytes[4], &bytes[5], &consumed);
    if (fields != 6 || static_cast<std::size_t>(consumed) != text.size()) return std::nullopt;

    std::uint64_t address = 0;
    for (const unsigned char byte : bytes)
        address = address << 8 | byte;
    return address;
}

std::string formatAddress(std::uint64_t address, LetterCase letters) {
    const char* const format =
        letters == LetterCase::upper ? "%02X:%02X:%02X:%02X:%02X:%02X" : "%02x:%02x:%02x:%02x:%02x:%02x";
    const auto byte = [address](int index) { return static_cast<unsigned>(address >> (8 * index) & 0xFF); };
    std::array<char, sizeof "00:1a:7d:da:71:13"> text{};
    std::snprintf(text.data(), text.size(), format, byte(5), byte(4), byte(3), byte(2), byte(1), byte(0));
    return text.data();
}

}  // namespace platform
