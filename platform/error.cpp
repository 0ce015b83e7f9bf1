#include "platform/error.h"

#include <array>
#include <cstdio>

namespace platform {

namespace {

std::string messageOrNumber(HResult code) {
    std::string message = systemMessage(code);
    if (!message.empty()) return message;
    std::array<char, sizeof "HRESULT 0x00000000"> text{};
    std::snprintf(text.data(), text.size(), "HRESULT 0x%08X", static_cast<unsigned>(code));
    return text.data();
}

}  // namespace

PlatformError::PlatformError(HResult code) : PlatformError(code, messageOrNumber(code)) {}

}  // namespace platform
