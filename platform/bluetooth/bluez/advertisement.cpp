#include "platform/advertisement.h"

#include <utility>

#include "bluetooth/callback_list.h"
#include "delivery.h"
#include "discovery.h"
#include "platform/address.h"
#include "platform/text.h"

namespace bluez {

namespace {

using platform::AdvertisementReceivedEventArgs;
using Listeners = bluetooth::CallbackList<const AdvertisementReceivedEventArgs*>;

// An advertisement carries no list rather than an empty one.
std::optional<std::vector<platform::Guid>> serviceUuids(const ObjectTree& tree, const std::string& path) {
    const auto texts = tree.get<std::vector<std::string>>(path, kDevice, "UUIDs");
    if (!texts || texts->empty()) return std::nullopt;
    std::vector<platform::Guid> uuids;
    for (const auto& text : *texts) {
        if (const auto uuid = platform::parseGuid(text)) uuids.push_back(*uuid);
    }
    return uuids;
}

AdvertisementReceivedEventArgs describe(const Objects& objects, const std::string& path) {
    return objects.read([&](const ObjectTree& tree) {
        AdvertisementReceivedEventArgs args;
        const auto address = tree.get<std::string>(path, kDevice, "Address").value_or("");
        args.bluetoothAddress = platform::parseAddress(address).value_or(0);
        args.serviceUuids = serviceUuids(tree, path);
        args.localName = platform::widen(tree.get<std::string>(path, kDevice, "Name").value_or(""));
        return args;
    });
}

// One search, from start to stop. bluetoothd has no signal for an advertisement; but each sets the device's
// signal strength, which devices that are only remembered do not have.
class Scan {
  public:
    Scan(const std::shared_ptr<Bus>& bus, std::shared_ptr<Listeners> listeners)
        : delivery_([listeners = std::move(listeners)](const auto& args) { listeners->call(&args); }),
          changes_(bus->onChange([this, &objects = bus->objects()](const Change& change) {
              if (change.kind == Change::Kind::removed || change.interface != kDevice) return;
              if (change.get<std::int64_t>("RSSI")) delivery_.post(describe(objects, change.path));
          })),
          discovery_(bus) {}

  private:
    Delivery<AdvertisementReceivedEventArgs> delivery_;
    platform::Subscription changes_;
    Discovery discovery_;
};

class Watcher final : public platform::AdvertisementWatcher {
  public:
    // BlueZ searches actively, always.
    void setScanningMode(platform::ScanningMode) override {}

    platform::Subscription onReceived(ReceivedHandler handler) override {
        return bluetooth::addCallback(listeners_, std::move(handler));
    }

    // Without bluetoothd there is nothing to hear, which is no error; the log has said why.
    void start() override {
        if (scan_) return;
        try {
            scan_ = std::make_unique<Scan>(Bus::current(), listeners_);
        } catch (const platform::PlatformError&) {
            return;
        }
    }

    void stop() override { scan_.reset(); }

  private:
    const std::shared_ptr<Listeners> listeners_ = std::make_shared<Listeners>();
    std::unique_ptr<Scan> scan_;
};

}  // namespace

}  // namespace bluez

namespace platform {

std::unique_ptr<AdvertisementWatcher> createAdvertisementWatcher() {
    return std::make_unique<bluez::Watcher>();
}

}  // namespace platform
