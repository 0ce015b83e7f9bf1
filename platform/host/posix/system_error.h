// Errors of system calls as the program knows them.
#pragma once

#include "platform/error.h"

namespace platform {

SystemError fromErrno(int code) noexcept;

}  // namespace platform
