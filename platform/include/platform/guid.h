// 128-bit identifiers of services and characteristics.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

struct Guid {
    std::uint32_t data1 = 0;
    std::uint16_t data2 = 0;
    std::uint16_t data3 = 0;
    std::array<std::uint8_t, 8> data4{};

    auto operator<=>(const Guid&) const = default;
};

// From the registry form "{0000FEFB-0000-1000-8000-00805F9B34FB}", braces optional, either case; nothing for
// any other text.
std::optional<Guid> parseGuid(std::string_view text);

// A 16-bit identifier on the Bluetooth base UUID (Bluetooth Core, vol 3, B 2.5.1).
Guid bluetoothUuid(std::uint16_t shortUuid);

// The registry form, upper case.
std::string toString(const Guid& guid);

}  // namespace platform
