// Devices, how one is found, and their services.
#include "gatt.h"

#include <algorithm>
#include <loguru.hpp>
#include <mutex>

#include "delivery.h"
#include "discovery.h"
#include "error.h"
#include "platform/address.h"
#include "platform/text.h"

namespace bluez {

namespace {

using platform::AsyncOperationPtr;
using platform::GattCharacteristicsResult;
using platform::GattCommunicationStatus;
using platform::GattDeviceServicesResult;
using platform::GattSessionStatus;
using platform::Guid;
using platform::PlatformError;
using platform::Subscription;
using DevicePtr = std::shared_ptr<platform::BluetoothLEDevice>;

constexpr std::chrono::seconds kFindTime{10};

// Tells a handler each change of the connection's state, once. A peripheral that restarts while the link
// stays up withdraws its service. That ends the session as a lost link does.
class StatusWatch {
  public:
    StatusWatch(const Connection& connection, const std::string& servicePath,
                platform::GattSession::StatusChangedHandler handler)
        : delivery_(std::move(handler)),
          changes_(connection.bus().onChange(
              [this, path = connection.devicePath(), servicePath](const Change& change) {
                  const bool removed = change.kind == Change::Kind::removed;
                  if (removed && change.path == servicePath && change.interface == kGattService)
                      return tell(false);
                  if (change.path != path || change.interface != kDevice) return;
                  if (removed) return tell(false);
                  if (const bool* const connected = change.get<bool>("Connected")) tell(*connected);
              })) {
        // The service may have been removed before this object listened.
        const bool there = connection.bus().objects().read(
            [&](const ObjectTree& tree) { return tree.has(servicePath, kGattService); });
        if (!there || !connection.connected()) tell(false);
    }

  private:
    void tell(bool active) {
        const std::lock_guard lock(mutex_);
        if (active_ == active) return;
        active_ = active;
        delivery_.post(active ? GattSessionStatus::active : GattSessionStatus::closed);
    }

    std::mutex mutex_;
    bool active_ = true;  // guarded by mutex_
    Delivery<GattSessionStatus> delivery_;
    Subscription changes_;
};

class Session final : public platform::GattSession {
  public:
    Session(std::shared_ptr<Connection> connection, std::string servicePath)
        : connection_(std::move(connection)), servicePath_(std::move(servicePath)) {}

    Subscription onSessionStatusChanged(StatusChangedHandler handler) override {
        auto watch = std::make_shared<StatusWatch>(*connection_, servicePath_, std::move(handler));
        return Subscription([watch = std::move(watch)]() mutable { watch.reset(); });
    }

  private:
    const std::shared_ptr<Connection> connection_;
    const std::string servicePath_;
};

class Service final : public platform::GattDeviceService {
  public:
    Service(std::shared_ptr<Connection> connection, std::string path, const Guid& uuid)
        : connection_(std::move(connection)), path_(std::move(path)), uuid_(uuid) {}

    Guid uuid() const override { return uuid_; }

    AsyncOperationPtr<GattCharacteristicsResult> getCharacteristicsForUuidAsync(const Guid& uuid) override {
        return run([&]() -> GattCharacteristicsResult {
            if (connection_->gone()) throw PlatformError(platform::kRoEClosed);
            if (!connection_->connected()) return {GattCommunicationStatus::unreachable, {}};
            return {GattCommunicationStatus::success, getCharacteristics(uuid)};
        });
    }

    std::vector<std::shared_ptr<platform::GattCharacteristic>> getCharacteristics(const Guid& uuid) override {
        std::vector<std::shared_ptr<platform::GattCharacteristic>> found;
        connection_->bus().objects().read([&](const ObjectTree& tree) {
            for (const auto& path : tree.children(kGattCharacteristic, "Service", path_)) {
                const auto text = tree.get<std::string>(path, kGattCharacteristic, "UUID").value_or("");
                if (platform::parseGuid(text) == uuid)
                    found.push_back(makeCharacteristic(connection_, path, uuid));
            }
        });
        return found;
    }

    std::shared_ptr<platform::GattSession> session() override {
        return std::make_shared<Session>(connection_, path_);
    }

  private:
    const std::shared_ptr<Connection> connection_;
    const std::string path_;
    const Guid uuid_;
};

// What is known of the device's services, in the order of their handles.
std::vector<std::shared_ptr<platform::GattDeviceService>> knownServices(
    const std::shared_ptr<Connection>& connection) {
    std::vector<std::shared_ptr<platform::GattDeviceService>> services;
    if (connection->gone()) return services;
    connection->bus().objects().read([&](const ObjectTree& tree) {
        for (const auto& path : tree.children(kGattService, "Device", connection->devicePath())) {
            const auto uuid =
                platform::parseGuid(tree.get<std::string>(path, kGattService, "UUID").value_or(""));
            if (uuid) services.push_back(std::make_shared<Service>(connection, path, *uuid));
        }
    });
    return services;
}

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
