// The objects of platform/gatt.h. They translate; the peripheral does the work.
#include "platform/gatt.h"

#include <algorithm>
#include <utility>

#include "faulty.h"
#include "link.h"
#include "peripheral.h"
#include "world.h"

namespace sim {

namespace {

using platform::AsyncOperationPtr;
using platform::GattCharacteristicsResult;
using platform::GattCommunicationStatus;
using platform::GattDeviceServicesResult;
using platform::Guid;
using platform::Subscription;
using Call = FaultPoint::Call;

class Session final : public platform::GattSession {
  public:
    Session(std::shared_ptr<WorldRuntime> runtime, std::shared_ptr<SessionListeners> listeners)
        : runtime_(std::move(runtime)), listeners_(std::move(listeners)) {}

    Subscription onSessionStatusChanged(StatusChangedHandler handler) override {
        auto delivery = std::make_shared<StatusDelivery>(std::move(handler));
        auto listener = std::make_shared<SessionListeners::Entry>(
            [delivery](platform::GattSessionStatus status) { delivery->post(status); });
        listeners_->add(listener);
        runtime_->launch(delivery);
        return Subscription([delivery, listener, listeners = listeners_] {
            listeners->remove(listener);
            delivery->finish();
        });
    }

  private:
    // Not the link: holding a session does not hold the connection.
    const std::shared_ptr<WorldRuntime> runtime_;
    const std::shared_ptr<SessionListeners> listeners_;
};

class Characteristic final : public platform::GattCharacteristic,
                             public std::enable_shared_from_this<Characteristic> {
  public:
    Characteristic(std::shared_ptr<Link> link, CharacteristicKind kind)
        : link_(std::move(link)), kind_(kind) {}

    Guid uuid() const override { return characteristicUuid(kind_); }

    // Either option gets the peripheral's answer: the simulation hides nothing.
    AsyncOperationPtr<GattCommunicationStatus> writeValueAsync(std::span<const std::uint8_t> value,
                                                               platform::GattWriteOption option) override {
        return link_->peripheral().write(*link_, kind_, value, option);
    }

    AsyncOperationPtr<GattCommunicationStatus> writeClientCharacteristicConfigurationDescriptorAsync(
        platform::GattClientCharacteristicConfigurationDescriptorValue value) override {
        return link_->peripheral().subscribe(*link_, kind_, value);
    }

    Subscription onValueChanged(ValueChangedHandler handler) override {
        auto delivery = std::make_shared<ValueDelivery>(weak_from_this(), std::move(handler));
        link_->peripheral().addDelivery(*link_, kind_, delivery);
        link_->peripheral().runtime().launch(delivery);
        return Subscription([delivery, weakLink = std::weak_ptr(link_), kind = kind_] {
            if (const auto link = weakLink.lock()) link->peripheral().removeDelivery(*link, kind, delivery);
            delivery->finish();
        });
    }

  private:
    const std::shared_ptr<Link> link_;
    const CharacteristicKind kind_;
};

class Service final : public platform::GattDeviceService {
  public:
    Service(std::shared_ptr<Link> link, const Guid& uuid) : link_(std::move(link)), uuid_(uuid) {}

    Guid uuid() const override { return uuid_; }

    AsyncOperationPtr<GattCharacteristicsResult> getCharacteristicsForUuidAsync(const Guid& uuid) override {
        auto& peripheral = link_->peripheral();
        if (const auto fault = peripheral.pass({Call::characteristics})) {
            return faultyOperation<GattCharacteristicsResult>(peripheral, *fault);
        }
        if (!peripheral.reachable(*link_)) {
            return completed(GattCharacteristicsResult{GattCommunicationStatus::unreachable, {}});
        }
        return completed(GattCharacteristicsResult{GattCommunicationStatus::success, find(uuid)});
    }

    std::vector<std::shared_ptr<platform::GattCharacteristic>> getCharacteristics(const Guid& uuid) override {
        auto& peripheral = link_->peripheral();
        if (const auto fault = peripheral.pass({Call::characteristics})) {
            applyFault(peripheral, *fault);
            return {};
        }
        return find(uuid);
    }

    std::shared_ptr<platform::GattSession> session() override {
        auto& peripheral = link_->peripheral();
        if (const auto fault = peripheral.pass({Call::session})) applyFault(peripheral, *fault);
        return std::make_shared<Session>(link_->peripheral().sharedRuntime(), link_->sessionListeners());
    }

  private:
    std::vector<std::shared_ptr<platform::GattCharacteristic>> find(const Guid& uuid) const {
        if (uuid_ != kTioService) return {};
        for (std::size_t i = 0; i < kCharacteristicKinds; ++i) {
            const auto kind = static_cast<CharacteristicKind>(i);
            const bool exists = link_->peripheral().scenario().characteristics[i];
            if (exists && characteristicUuid(kind) == uuid)
                return {std::make_shared<Characteristic>(link_, kind)};
        }
        return {};
    }

    const std::shared_ptr<Link> link_;
    const Guid uuid_;
};

class Device final : public platform::BluetoothLEDevice {
  public:
    explicit Device(std::shared_ptr<TioPeripheral> peripheral)
        : link_(std::make_shared<Link>(std::move(peripheral))) {}

    platform::BluetoothConnectionStatus connectionStatus() const override {
        return link_->connected() ? platform::BluetoothConnectionStatus::connected
                                  : platform::BluetoothConnectionStatus::disconnected;
    }

    std::vector<std::shared_ptr<platform::GattDeviceService>> gattServices() override {
        auto& peripheral = link_->peripheral();
        if (const auto fault = peripheral.pass({Call::servicesAll})) {
            applyFault(peripheral, *fault);
            return {};
        }
        return list(peripheral.scenario().cachedServices);
    }

    AsyncOperationPtr<GattDeviceServicesResult> getGattServicesForUuidAsync(const Guid& uuid) override {
        auto& peripheral = link_->peripheral();
        if (const auto fault = peripheral.pass({Call::services})) {
            return faultyOperation<GattDeviceServicesResult>(peripheral, *fault);
        }
        if (!peripheral.connect(*link_)) return unreachable();
        std::vector<Guid> found;
        const auto& services = peripheral.scenario().services;
        const bool visible = !peripheral.scenario().appearsAfterListing || peripheral.servicesListed();
        if (visible)
            std::copy_if(services.begin(), services.end(), std::back_inserter(found),
                         [&](const Guid& service) { return service == uuid; });
        return completed(GattDeviceServicesResult{GattCommunicationStatus::success, list(found)});
    }

    AsyncOperationPtr<GattDeviceServicesResult> getGattServicesAsync(
        platform::BluetoothCacheMode mode) override {
        auto& peripheral = link_->peripheral();
        if (const auto fault = peripheral.pass({Call::servicesAll})) {
            return faultyOperation<GattDeviceServicesResult>(peripheral, *fault);
        }
        const bool cached = mode == platform::BluetoothCacheMode::cached;
        if (!peripheral.connect(*link_) && !cached) return unreachable();
        peripheral.noteServicesListed();
        const auto& scenario = peripheral.scenario();
        return completed(
            GattDeviceServicesResult{GattCommunicationStatus::success,
                                     list(cached ? scenario.cachedServices : scenario.uncachedServices)});
    }

  private:
    static AsyncOperationPtr<GattDeviceServicesResult> unreachable() {
        return completed(GattDeviceServicesResult{GattCommunicationStatus::unreachable, {}});
    }

    std::vector<std::shared_ptr<platform::GattDeviceService>> list(const std::vector<Guid>& uuids) const {
        std::vector<std::shared_ptr<platform::GattDeviceService>> services;
        services.reserve(uuids.size());
        for (const auto& uuid : uuids)
            services.push_back(std::make_shared<Service>(link_, uuid));
        return services;
    }

    const std::shared_ptr<Link> link_;
};

}  // namespace

}  // namespace sim

namespace platform {

AsyncOperationPtr<std::shared_ptr<BluetoothLEDevice>> bluetoothLEDeviceFromAddressAsync(
    std::uint64_t address) {
    using DevicePtr = std::shared_ptr<BluetoothLEDevice>;
    const auto peripheral = sim::requireWorld()->findPeripheral(address);
    if (!peripheral) return sim::completed(DevicePtr());
    if (const auto fault = peripheral->pass({sim::FaultPoint::Call::device})) {
        return sim::faultyOperation<DevicePtr>(*peripheral, *fault);
    }
    return sim::completed(DevicePtr(std::make_shared<sim::Device>(peripheral)));
}

}  // namespace platform
