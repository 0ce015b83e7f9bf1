#include "platform/guid.h"

#include <charconv>
#include <cstdio>
#include <system_error>

namespace platform {

namespace {

constexpr std::size_t kTextLength = 36;

// All digits of the text as one number; from_chars alone would accept fewer.
template <typename Number>
bool parseHex(std::string_view digits, Number& out) {
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, out, 16);
    return error == std::errc() && stop == end;
}

bool hasDashes(std::string_view text) {
    return text[8] == '-' && text[13] == '-' && text[18] == '-' && text[23] == '-';
}

}  // namespace

std::optional<Guid> parseGuid(std::string_view text) {
    if (text.size() == kTextLength + 2 && text.front() == '{' && text.back() == '}') {
        text = text.substr(1, kTextLength);
    }
    if (text.size() != kTextLength || !hasDashes(text)) return std::nullopt;

    Guid guid;
    if (!parseHex(text.substr(0, 8), guid.data1) || !parseHex(text.substr(9, 4), guid.data2) ||
        !parseHex(text.substr(14, 4), guid.data3)) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < guid.data4.size(); ++i) {
        const std::size_t position = i < 2 ? 19 + 2 * i : 24 + 2 * (i - 2);
        if (!parseHex(text.substr(position, 2), guid.data4[i])) return std::nullopt;
    }
    return guid;
}

Guid bluetoothUuid(std::uint16_t shortUuid) {
    return {shortUuid, 0x0000, 0x1000, {0x80, 0x00, 0x00, 0x80, 0x5F, 0x9B, 0x34, 0xFB}};
}

std::string toString(const Guid& guid) {
    char text[kTextLength + 3];
    const auto& d = guid.data4;
    std::snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                  static_cast<unsigned>(guid.data1), static_cast<unsigned>(guid.data2),
                  static_cast<unsigned>(guid.data3), d[0], d[1], d[2], d[3], d[4], d[5], d[6], d[7]);
    return text;
}

}  // namespace platform
