// A simulated Bluetooth world, and the one that the platform's free functions use.
//
// Threads: any, except that a WorldScope belongs to one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "peripheral.h"
#include "platform/advertisement.h"
#include "platform/radio.h"
#include "scenario.h"
#include "world_runtime.h"

namespace sim {

// What a world has been asked for, in order.
//
// Threads: any.
template <typename Item>
class Record {
  public:
    void note(Item item) {
        const std::lock_guard lock(mutex_);
        items_.push_back(std::move(item));
    }
    std::vector<Item> all() const {
        const std::lock_guard lock(mutex_);
        return items_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<Item> items_;
};

class World {
  public:
    static std::shared_ptr<World> create(Scenario scenario);

    const Scenario& scenario() const { return scenario_; }
    const std::shared_ptr<WorldRuntime>& runtime() const { return runtime_; }

    // In the order of the scenario.
    TioPeripheral& peripheral(std::size_t index) const { return *peripherals_.at(index); }
    const std::vector<std::shared_ptr<TioPeripheral>>& peripherals() const { return peripherals_; }
    // By the low 48 bits; null when there is none.
    std::shared_ptr<TioPeripheral> findPeripheral(std::uint64_t address) const;

    const platform::RadioList& radios() const { return radios_; }
    // The program makes a call that no peripheral answers; what goes wrong this time, if anything.
    std::optional<Fault> pass(const FaultPoint& point);
    // Called by a radio whose state has changed: a Bluetooth radio that goes off takes all links with it.
    void radioChanged(platform::RadioState before, platform::RadioState now);

    // The states that radios were asked for.
    Record<platform::RadioState> radioRequests;
    // The modes of the scans that were started.
    Record<platform::ScanningMode> scans;
    // The scan commands that the adapters were sent, refused ones too.
    Record<std::vector<std::uint8_t>> scanCommands;

    // Pending operations become cancelled, callbacks end, links drop. Objects that are still held stay safe
    // to call.
    void end();

    // One line for each peripheral.
    std::vector<std::string> summary() const;

  private:
    explicit World(Scenario scenario);
    bool anyBluetoothRadioOn() const;
    void dropLinks();

    const Scenario scenario_;
    const std::shared_ptr<WorldRuntime> runtime_ = std::make_shared<WorldRuntime>();
    std::vector<std::shared_ptr<TioPeripheral>> peripherals_;
    platform::RadioList radios_;
    std::mutex faultsMutex_;
    FaultTable faults_;
};

std::shared_ptr<platform::Radio> makeRadio(const RadioScenario& scenario, std::weak_ptr<World> world);

// The current world; null without one.
std::shared_ptr<World> currentWorld();

// The current world; throws PlatformError without one.
std::shared_ptr<World> requireWorld();

// Makes a world the current one for as long as the scope lives, and applies its time scale. Scopes nest.
class WorldScope {
  public:
    // Throws platform::BluetoothConfigError.
    explicit WorldScope(std::string_view json = "{}");
    explicit WorldScope(Scenario scenario);
    ~WorldScope();
    WorldScope(const WorldScope&) = delete;
    WorldScope& operator=(const WorldScope&) = delete;

    World& world() const { return *world_; }

  private:
    const std::shared_ptr<World> world_;
    const std::shared_ptr<World> outer_;
};

}  // namespace sim
