#include "discovery.h"

#include <loguru.hpp>
#include <map>
#include <mutex>
#include <utility>

#include "advice.h"
#include "error.h"
#include "platform/clock.h"
#include "platform/text.h"

namespace bluez {

namespace {

using platform::PlatformError;

constexpr std::chrono::seconds kSwitchTime{5};
constexpr std::chrono::milliseconds kSwitchPoll{100};

// Searches by bus and adapter. The lock is held while bluetoothd is asked, so that a start and a stop cannot
// overtake each other; nothing that bluetoothd's answer needs takes it.
struct Searches {
    std::mutex mutex;
    std::map<std::pair<const Bus*, std::string>, int> users;  // guarded by mutex
};

Searches& searches() {
    static Searches instance;
    return instance;
}

// bluetoothd ends a search when its adapter is switched off. So each user starts it again.
void start(Bus& bus, const std::string& adapter, bool mayRun) {
    // With duplicates a peripheral is reported each time it is heard, not only when its data change.
    const std::map<std::string, sdbus::Variant> filter{{"Transport", std::string("le")},
                                                       {"DuplicateData", true}};
    const auto deadline = std::chrono::steady_clock::now() + kSwitchTime;
    for (;; platform::sleepFor(kSwitchPoll)) {
        try {
            bus.call({adapter, kAdapter, "SetDiscoveryFilter", kSwitchTime}, filter);
            bus.call({adapter, kAdapter, "StartDiscovery", kSwitchTime});
            return;
        } catch (const PlatformError& error) {
            // The search runs already, or another program is just starting or stopping one.
            if (error.code() != kInProgress) throw;
            if (mayRun) return;
            if (std::chrono::steady_clock::now() > deadline) throw;
        }
    }
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
    const std::lock_guard lock(searches().mutex);
    int& users = searches().users[{bus_.get(), *adapter}];
    try {
        start(*bus_, *adapter, users > 0);
    } catch (const PlatformError& error) {
        if (error.code() == platform::kECancelled) throw;
        LOG_S(WARNING) << "[WARNING] Bluetooth: the search did not start: "
                       << platform::printable(error.what());
        return;
    }
    adapter_ = *adapter;
    ++users;
}

Discovery::~Discovery() {
    if (!running()) return;
    const std::lock_guard lock(searches().mutex);
    const auto users = searches().users.find({bus_.get(), adapter_});
    if (--users->second > 0) return;
    searches().users.erase(users);
    try {
        bus_->call({adapter_, kAdapter, "StopDiscovery", kSwitchTime});
    } catch (const PlatformError&) {
        // The adapter or bluetoothd has gone, and the search with it.
    }
}

}  // namespace bluez
