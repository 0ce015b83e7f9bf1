// Converts the identifiers of services and characteristics between platform/ and the binary interface.
#pragma once

#include <windows.h>

#include <algorithm>

#include "platform/guid.h"

namespace provider {

inline GUID toAbi(const platform::Guid& guid) {
    GUID result{guid.data1, guid.data2, guid.data3, {}};
    std::copy(guid.data4.begin(), guid.data4.end(), result.Data4);
    return result;
}

inline platform::Guid fromAbi(const GUID& guid) {
    platform::Guid result{static_cast<std::uint32_t>(guid.Data1), guid.Data2, guid.Data3, {}};
    std::copy(std::begin(guid.Data4), std::end(guid.Data4), result.data4.begin());
    return result;
}

}  // namespace provider
