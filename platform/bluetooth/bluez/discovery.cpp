#include "platform/bluetooth/bluez/discovery.h"

#include <loguru.hpp>
#include <map>
#include <mutex>

#include "platform/bluetooth/bluez/advice.h"
#include "platform/bluetooth/bluez/error.h"

namespace bluez {

namespace {

using platform::PlatformError;

constexpr std::chrono::seconds kSwitchTime{5};

// The search that all share. The lock is held while bluetoothd is asked, so that a start and a stop cannot
// overtake each other; nothing that bluetoothd's answer needs takes it.
struct Shared {
    std::mutex mutex;
    int users = 0;
    std::string adapter;
};

Shared& shared() {
    static Shared instance;
    return instance;
}

void start(Bus& bus, const std::string& adapter) {
    // Duplicates: a peripheral that is there is heard again and again, not only when something changes.
    const std::map<std::string, sdbus::Variant> filter{{"Transport", std::string("le")},
                                                       {"DuplicateData", true}};
    bus.call({adapter, kAdapter, "SetDiscoveryFilter", kSwitchTime}, filter);
    bus.call({adapter, kAdapter, "StartDiscovery", kSwitchTime});
}

}  // namespace

std::optional<std::string> poweredAdapter(const Objects& objects) {
    return objects.read([](const ObjectTree& tree) -> std::optional<std::string> {
        for (const auto& path : tree.paths(kAdapter)) {
            if (tree.isTrue(path, kAdapter, "Powered")) return path;
        }
        return std::nullopt;
    });
}

Discovery::Discovery(std::shared_ptr<Bus> bus) : bus_(std::move(bus)) {
    const auto adapter = poweredAdapter(bus_->objects());
    if (!adapter) {
        advise(Trouble::noAdapter);
        return;
    }
    const std::lock_guard lock(shared().mutex);
    try {
        if (shared().users == 0) start(*bus_, *adapter);
    } catch (const PlatformError& error) {
        if (error.code() == platform::kECancelled) throw;
        LOG_S(WARNING) << "[WARNING] Bluetooth: the search did not start: " << error.what();
        return;
    }
    if (shared().users++ == 0) shared().adapter = *adapter;
    running_ = true;
}

Discovery::~Discovery() {
    if (!running_) return;
    const std::lock_guard lock(shared().mutex);
    if (--shared().users > 0) return;
    try {
        bus_->call({shared().adapter, kAdapter, "StopDiscovery", kSwitchTime});
    } catch (const PlatformError&) {
        // The adapter or bluetoothd has gone, and the search with it.
    }
}

}  // namespace bluez
