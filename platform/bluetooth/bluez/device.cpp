// Devices, and how one is found.
#include <algorithm>
#include <loguru.hpp>

#include "discovery.h"
#include "error.h"
#include "gatt.h"
#include "platform/address.h"
#include "platform/text.h"

namespace bluez {

namespace {

using platform::AsyncOperationPtr;
using platform::GattCommunicationStatus;
using platform::GattDeviceServicesResult;
using platform::Guid;
using platform::PlatformError;
using DevicePtr = std::shared_ptr<platform::BluetoothLEDevice>;

constexpr std::chrono::seconds kFindTime{10};

class Device final : public platform::BluetoothLEDevice {
  public:
    explicit Device(std::shared_ptr<Connection> connection) : connection_(std::move(connection)) {}

    platform::BluetoothConnectionStatus connectionStatus() const override {
        return connection_->connected() ? platform::BluetoothConnectionStatus::connected
                                        : platform::BluetoothConnectionStatus::disconnected;
    }

    std::vector<std::shared_ptr<platform::GattDeviceService>> gattServices() override {
        return knownServices(connection_);
    }

    AsyncOperationPtr<GattDeviceServicesResult> getGattServicesForUuidAsync(const Guid& uuid) override {
        return run([&] {
            auto result = readServices();
            if (result.services)
                std::erase_if(*result.services, [&](const auto& service) { return service->uuid() != uuid; });
            return result;
        });
    }

    // bluetoothd reads the services once for each link: while one is up its reading is the latest there is.
    AsyncOperationPtr<GattDeviceServicesResult> getGattServicesAsync(
        platform::BluetoothCacheMode mode) override {
        return run([&]() -> GattDeviceServicesResult {
            if (mode == platform::BluetoothCacheMode::uncached) return readServices();
            return {GattCommunicationStatus::success, knownServices(connection_)};
        });
    }

  private:
    GattDeviceServicesResult readServices() {
        try {
            connection_->establish();
            return {GattCommunicationStatus::success, knownServices(connection_)};
        } catch (const PlatformError& error) {
            // The status alone does not tell a person what to look for.
            LOG_S(WARNING) << "[WARNING] Bluetooth: the peripheral's services could not be had: "
                           << platform::printable(error.what());
            return {statusOf(error), {}};
        }
    }

    const std::shared_ptr<Connection> connection_;
};

// Prefers a device that is connected. Leaves out devices whose adapter is off.
std::optional<std::string> knownDevice(const ObjectTree& tree, const std::string& address) {
    auto paths = tree.children(kDevice, "Address", address);
    std::erase_if(paths, [&](const std::string& path) {
        const auto adapter = tree.get<std::string>(path, kDevice, "Adapter").value_or("");
        return !tree.isTrue(adapter, kAdapter, "Powered");
    });
    if (paths.empty()) return std::nullopt;
    const auto connected = std::find_if(paths.begin(), paths.end(), [&](const std::string& path) {
        return tree.isTrue(path, kDevice, "Connected");
    });
    return connected == paths.end() ? paths.front() : *connected;
}

DevicePtr findDevice(std::uint64_t address) {
    const auto bus = Bus::current();
    const std::string text = platform::formatAddress(address, platform::LetterCase::upper);
    auto path = bus->objects().read([&](const ObjectTree& tree) { return knownDevice(tree, text); });
    if (!path) {
        const Discovery discovery(bus);
        if (!discovery.running()) return nullptr;
        bus->waitFor(kFindTime, [&](const ObjectTree& tree) {
            path = knownDevice(tree, text);
            return path.has_value();
        });
    }
    return path ? std::make_shared<Device>(std::make_shared<Connection>(bus, *path)) : nullptr;
}

}  // namespace

}  // namespace bluez

namespace platform {

AsyncOperationPtr<std::shared_ptr<BluetoothLEDevice>> bluetoothLEDeviceFromAddressAsync(
    std::uint64_t address) {
    return bluez::run([&] { return bluez::findDevice(address); });
}

}  // namespace platform
