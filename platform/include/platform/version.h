// The version of the system that the Bluetooth side runs on.
#pragma once

#include <cstdint>

namespace platform {

struct OsVersion {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::uint32_t build = 0;

    bool operator==(const OsVersion&) const = default;
};

// The system's true version: it decides which GATT calls can be used. Asked anew at each call. Any thread,
// never fails; 0.0.0 when the system does not tell.
OsVersion osVersion();

}  // namespace platform
