// The TIO serial-over-GATT profile as the simulated peripheral speaks it.
//
// Directions are the peripheral's: TX is what it transmits, RX what it receives.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/guid.h"

namespace sim {

enum class CharacteristicKind { tx, rx, crtx, crrx, txMtu, rxMtu };
inline constexpr std::size_t kCharacteristicKinds = 6;

constexpr std::size_t indexOf(CharacteristicKind kind) {
    return static_cast<std::size_t>(kind);
}

// As scenarios write them, in the order of the enumeration.
inline constexpr std::array<std::string_view, kCharacteristicKinds> kCharacteristicNames = {
    "TX", "RX", "CRTX", "CRRX", "TXMTU", "RXMTU"};

inline constexpr platform::Guid kTioService = {
    0xFEFB, 0x0000, 0x1000, {0x80, 0x00, 0x00, 0x80, 0x5F, 0x9B, 0x34, 0xFB}};

constexpr platform::Guid characteristicUuid(CharacteristicKind kind) {
    constexpr std::array<std::uint32_t, kCharacteristicKinds> kNumbers = {0x02, 0x01, 0x04, 0x03, 0x0A, 0x09};
    return {kNumbers[indexOf(kind)], 0x0000, 0x1000, {0x80, 0x00, 0x00, 0x80, 0x25, 0x00, 0x00, 0x00}};
}

// Data packets have at most this many bytes until an MTU is agreed on.
inline constexpr std::size_t kDefaultMtu = 20;

}  // namespace sim
