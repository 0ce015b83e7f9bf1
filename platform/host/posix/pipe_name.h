// Where a pipe's socket is.
#pragma once

#include <string>
#include <string_view>

#include "platform/error.h"

namespace platform {

// `path` is empty when `error` is set.
struct SocketPath {
    std::string path;
    SystemError error = SystemError::none;
};

// "\\.\pipe\NAME", with any separator doubled, is NAME in $XDG_RUNTIME_DIR or, without one, in a directory of
// the user's own below $TMPDIR or /tmp, which is made when it is missing; any other name is a path.
SocketPath socketPath(std::wstring_view name);

}  // namespace platform
