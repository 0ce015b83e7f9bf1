// Addresses as BlueZ writes them.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

namespace bluez {

// The low 48 bits, "00:1A:7D:DA:71:13".
inline std::string addressText(std::uint64_t address) {
    std::array<char, 18> text{};
    const auto byte = [address](int index) { return static_cast<unsigned>(address >> (8 * index) & 0xFF); };
    std::snprintf(text.data(), text.size(), "%02X:%02X:%02X:%02X:%02X:%02X", byte(5), byte(4), byte(3),
                  byte(2), byte(1), byte(0));
    return text.data();
}

// The text comes from BlueZ, which writes no other form.
inline std::uint64_t parseAddress(const std::string& text) {
    std::uint64_t address = 0;
    for (const char character : text) {
        if (character == ':') continue;
        const bool digit = character >= '0' && character <= '9';
        address = address << 4 | static_cast<std::uint64_t>(digit ? character - '0' : character - 'A' + 10);
    }
    return address;
}

}  // namespace bluez
