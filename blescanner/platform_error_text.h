// The form in which every thread's top logs a failed platform call.
#pragma once

#include <string>

#include "platform/error.h"
#include "platform/text.h"

namespace blescanner {

inline std::string describe(const platform::PlatformError& error) {
    return platform::printable(error.what()) + " HRESULT: " + std::to_string(error.code());
}

}  // namespace blescanner
