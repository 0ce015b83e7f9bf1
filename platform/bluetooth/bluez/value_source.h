// Where a characteristic's values come from.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "connection.h"
#include "descriptor.h"

namespace bluez {

// Calls the handler for one value after the other, in their order, on a thread of its own; its end waits for
// a handler that runs and makes the peripheral send no more.
class ValueSource {
  public:
    using Handler = std::function<void(std::span<const std::uint8_t>)>;

    virtual ~ValueSource() = default;
};

// From a descriptor where BlueZ offers one, from signals otherwise. Throws PlatformError.
std::unique_ptr<ValueSource> subscribe(const std::shared_ptr<Connection>& connection, const std::string& path,
                                       ValueSource::Handler handler);

}  // namespace bluez
