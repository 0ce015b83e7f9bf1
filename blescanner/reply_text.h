// Names from outside as part of a reply.
#pragma once

#include <algorithm>
#include <string>

namespace blescanner {

// Anybody in range chooses a device's name, and a user an adapter's. A line end in one would forge lines of
// the command protocol and of the log, so it becomes a blank; likewise any unit whose low byte, which is what
// travels on the pipe, is one.
inline std::wstring withoutLineEnds(std::wstring name) {
    const auto travelsAsLineEnd = [](wchar_t unit) {
        return (unit & 0xFF) == L'\r' || (unit & 0xFF) == L'\n';
    };
    std::replace_if(name.begin(), name.end(), travelsAsLineEnd, L' ');
    return name;
}

}  // namespace blescanner
