// Names from outside as part of a reply.
#pragma once

#include <algorithm>
#include <string>

namespace blescanner {

// Anybody in range chooses a device's name, and a user an adapter's. A line end in one would forge lines of
// the command protocol, an escape sequence would reach the client's terminal. So every unit whose low byte,
// which is what travels on the pipe, is a control character becomes a blank.
inline std::wstring withoutControlCharacters(std::wstring name) {
    const auto travelsAsControl = [](wchar_t unit) {
        const int byte = unit & 0xFF;
        return byte < 0x20 || (byte >= 0x7F && byte < 0xA0);
    };
    std::replace_if(name.begin(), name.end(), travelsAsControl, L' ');
    return name;
}

}  // namespace blescanner
