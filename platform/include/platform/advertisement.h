// LE advertisements.
//
// Threads: a watcher belongs to one thread; its callbacks run on threads of the backend, never two at a time.
// Every call may throw PlatformError.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/guid.h"
#include "platform/subscription.h"

namespace platform {

enum class ScanningMode { passive = 0, active = 1 };

// Valid during the callback only.
struct AdvertisementReceivedEventArgs {
    std::uint64_t bluetoothAddress = 0;
    std::optional<std::vector<Guid>> serviceUuids;  // nothing: the advertisement has no list of services
    std::wstring localName;                         // any characters; empty: it has no name
};

class AdvertisementWatcher {
  public:
    // The pointer is null where the platform hands out nothing.
    using ReceivedHandler = std::function<void(const AdvertisementReceivedEventArgs* args)>;

    virtual ~AdvertisementWatcher() = default;
    virtual void setScanningMode(ScanningMode mode) = 0;
    [[nodiscard]] virtual Subscription onReceived(ReceivedHandler handler) = 0;
    virtual void start() = 0;
    virtual void stop() = 0;
};

std::unique_ptr<AdvertisementWatcher> createAdvertisementWatcher();

}  // namespace platform
