#include "world.h"

#include <algorithm>
#include <utility>

#include "platform/address.h"
#include "platform/clock.h"
#include "platform/text.h"

namespace sim {

namespace {

std::mutex currentMutex;
std::shared_ptr<World> current;  // guarded by currentMutex

std::shared_ptr<World> exchangeCurrent(std::shared_ptr<World> world) {
    const std::lock_guard lock(currentMutex);
    return std::exchange(current, std::move(world));
}

std::string summaryLine(const TioPeripheral& peripheral) {
    const auto counters = peripheral.counters();
    const auto pair = [](const char* first, std::uint64_t one, const char* second, std::uint64_t two) {
        return first + std::to_string(one) + second + std::to_string(two);
    };
    return "sim: " + platform::printable(peripheral.scenario().name) + " (" +
           platform::formatAddress(peripheral.scenario().address, platform::LetterCase::upper) +
           "): " + pair("in ", counters.bytesIn, " bytes, out ", counters.bytesOut) + " bytes, " +
           pair("credits granted ", counters.creditsGranted, " used ", counters.creditsUsed) + ", " +
           pair("host credits granted ", counters.hostCreditsGranted, " used ", counters.hostCreditsUsed) +
           ", violations " + std::to_string(counters.violations);
}

}  // namespace

std::shared_ptr<World> World::create(Scenario scenario) {
    std::shared_ptr<World> world(new World(std::move(scenario)));
    if (world->scenario_.radios) {
        world->radios_.emplace();
        for (const auto& radio : *world->scenario_.radios)
            world->radios_->push_back(makeRadio(radio, world));
    }
    world->runtime_->setBluetoothOn(world->anyBluetoothRadioOn());
    return world;
}

World::World(Scenario scenario) : scenario_(std::move(scenario)), faults_(scenario_.faults) {
    for (const auto& peripheral : scenario_.peripherals) {
        peripherals_.push_back(std::make_shared<TioPeripheral>(peripheral, runtime_));
    }
}

std::shared_ptr<TioPeripheral> World::findPeripheral(std::uint64_t address) const {
    constexpr std::uint64_t kAddressBits = 0xFFFF'FFFF'FFFF;
    for (const auto& peripheral : peripherals_) {
        if (peripheral->scenario().address == (address & kAddressBits)) return peripheral;
    }
    return nullptr;
}

// A radio list that cannot be had says nothing against Bluetooth.
bool World::anyBluetoothRadioOn() const {
    if (!radios_) return true;
    return std::any_of(radios_->begin(), radios_->end(), [](const auto& radio) {
        return radio->kind() == platform::RadioKind::bluetooth && radio->state() == platform::RadioState::on;
    });
}

void World::radioChanged(platform::RadioState before, platform::RadioState now) {
    runtime_->setBluetoothOn(anyBluetoothRadioOn());
    if (before == platform::RadioState::on && now != platform::RadioState::on) dropLinks();
}

void World::dropLinks() {
    for (const auto& peripheral : peripherals_)
        peripheral->dropLink();
}

std::optional<Fault> World::pass(const FaultPoint& point) {
    const std::lock_guard lock(faultsMutex_);
    return faults_.pass(point);
}

void World::end() {
    runtime_->end();
    runtime_->setBluetoothOn(false);
    dropLinks();
}

std::vector<std::string> World::summary() const {
    std::vector<std::string> lines;
    for (const auto& peripheral : peripherals_)
        lines.push_back(summaryLine(*peripheral));
    return lines;
}

std::shared_ptr<World> currentWorld() {
    const std::lock_guard lock(currentMutex);
    return current;
}

std::shared_ptr<World> requireWorld() {
    auto world = currentWorld();
    if (!world) throw platform::PlatformError(platform::kEFail, "The Bluetooth side has not been started");
    return world;
}

WorldScope::WorldScope(std::string_view json) : WorldScope(parseScenario(json)) {}

WorldScope::WorldScope(Scenario scenario)
    : world_(World::create(std::move(scenario))), outer_(exchangeCurrent(world_)) {
    if (world_->scenario().timeScale) platform::setTimeScale(*world_->scenario().timeScale);
}

WorldScope::~WorldScope() {
    world_->end();
    exchangeCurrent(outer_);
    if (world_->scenario().timeScale) platform::setTimeScale(1);
}

}  // namespace sim
