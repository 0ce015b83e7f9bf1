// Simulated drivers: the records that the scenario lists.
#include "platform/driver.h"

#include <utility>

#include "faulty.h"
#include "platform/runtime.h"
#include "world.h"

namespace sim {

namespace {

using platform::SystemError;

class SimDriverDevice final : public platform::DriverDevice {
  public:
    explicit SimDriverDevice(DriverScenario scenario) : scenario_(std::move(scenario)) {}

    SystemError buildCompatibleDriverList() override {
        built_ = scenario_.buildError == SystemError::none;
        return scenario_.buildError;
    }

    SystemError compatibleDriver(std::uint32_t index, platform::DriverInfo& out) const override {
        if (!built_) return SystemError::noMoreItems;
        if (index >= scenario_.compatible.size()) return scenario_.endError;
        out = scenario_.compatible[index];
        return SystemError::none;
    }

  private:
    const DriverScenario scenario_;
    bool built_ = false;
};

}  // namespace

}  // namespace sim

namespace platform {

DriverDeviceList bluetoothDriverDevices() {
    DriverDeviceList list;
    if (const auto world = sim::currentWorld()) {
        if (const auto fault = world->pass({sim::FaultPoint::Call::drivers})) {
            list.error = sim::listError(*world->runtime(), *fault, SystemError::none);
            return list;
        }
        for (const auto& scenario : world->scenario().drivers) {
            list.devices.push_back(std::make_shared<sim::SimDriverDevice>(scenario));
        }
    }
    return list;
}

std::filesystem::path driversDbPath() {
    const auto world = sim::currentWorld();
    if (world && !world->scenario().driversDb.empty()) return world->scenario().driversDb;
    return executableDirectory() / "drivers.db";
}

}  // namespace platform
