// Errors of system calls as the program knows them.
#pragma once

#include <windows.h>

#include "platform/error.h"

namespace platform {

SystemError fromWindows(DWORD code) noexcept;

// The calling thread's last error, to be thrown.
PlatformError lastError();

}  // namespace platform
