// The TIO serial-over-GATT profile: identifiers and flow-control figures.
//
// Directions are the peripheral's: TX is what it transmits, RX what it receives. Local credits are the ones
// that this side has granted to the peripheral, remote credits the ones that the peripheral has granted to
// this side.
#pragma once

#include <cstdint>

#include "platform/guid.h"

namespace blescanner {

// Under the base "-0000-1000-8000-008025000000", which is the profile's own and not the Bluetooth base UUID.
constexpr platform::Guid tioCharacteristic(std::uint32_t number) {
    return {number, 0x0000, 0x1000, {0x80, 0x00, 0x00, 0x80, 0x25, 0x00, 0x00, 0x00}};
}

constexpr platform::Guid bluetoothBase(std::uint32_t number) {
    return {number, 0x0000, 0x1000, {0x80, 0x00, 0x00, 0x80, 0x5F, 0x9B, 0x34, 0xFB}};
}

inline constexpr platform::Guid TIO_SERVICE_UUID = bluetoothBase(0xFEFB);
// Part of the profile, but not used.
inline constexpr platform::Guid TIO_ALT_SERVICE_UUID = bluetoothBase(0xFFE9);

inline constexpr platform::Guid RX_UUID = tioCharacteristic(0x01);  // host writes data, without response
inline constexpr platform::Guid TX_UUID = tioCharacteristic(0x02);  // peripheral notifies data
inline constexpr platform::Guid CRRX_UUID =
    tioCharacteristic(0x03);  // host grants credits, 1 byte, with response
inline constexpr platform::Guid CRTX_UUID =
    tioCharacteristic(0x04);  // peripheral indicates granted credits, 1 byte
inline constexpr platform::Guid RXMTU_UUID =
    tioCharacteristic(0x09);  // host writes its MTU, 2 bytes, little-endian
inline constexpr platform::Guid TXMTU_UUID =
    tioCharacteristic(0x0A);  // peripheral indicates its MTU, likewise

inline constexpr std::int32_t TIO_DEFAULT_MTU = 20;
inline constexpr std::int32_t TIO_LOCAL_CREDIT_TARGET = 40;
inline constexpr std::int32_t TIO_CREDIT_REGRANT_THRESHOLD =
    10;  // local credits; a grant is due at 10 or fewer

}  // namespace blescanner
