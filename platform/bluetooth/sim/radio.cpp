#include "platform/radio.h"

#include <atomic>
#include <utility>

#include "bluetooth/operation.h"
#include "faulty.h"
#include "world.h"

namespace sim {

namespace {

using platform::RadioAccessStatus;
using platform::RadioState;

class SimRadio final : public platform::Radio, public std::enable_shared_from_this<SimRadio> {
  public:
    SimRadio(const RadioScenario& scenario, std::weak_ptr<World> world)
        : scenario_(scenario), world_(std::move(world)), state_(scenario.state) {}

    std::wstring name() const override { return scenario_.name; }
    platform::RadioKind kind() const override { return scenario_.kind; }
    RadioState state() const override { return state_.load(); }

    platform::AsyncOperationPtr<RadioAccessStatus> setStateAsync(RadioState state) override {
        if (const auto world = world_.lock()) {
            world->radioRequests.note(state);
            if (const auto fault = world->pass({FaultPoint::Call::radioState}))
                return faultyOperation<RadioAccessStatus>(*world->runtime(), *fault);
            if (!scenario_.stuck) request(*world, state);
        }
        return completed(RadioAccessStatus::allowed);
    }

  private:
    void request(World& world, RadioState state) {
        if (scenario_.switchDelay.count() == 0) return reach(world, state);
        const double scale = world.scenario().timeScale.value_or(1);
        const std::chrono::duration<double, std::milli> delay(
            static_cast<double>(scenario_.switchDelay.count()) / scale);
        const auto due =
            WorldRuntime::Clock::now() + std::chrono::duration_cast<WorldRuntime::Clock::duration>(delay);
        world.runtime()->at(due, [self = weak_from_this(), weakWorld = world_, state] {
            const auto radio = self.lock();
            const auto stillWorld = weakWorld.lock();
            if (radio && stillWorld) radio->reach(*stillWorld, state);
        });
    }

    void reach(World& world, RadioState state) {
        const auto before = state_.exchange(state);
        if (scenario_.kind == platform::RadioKind::bluetooth) world.radioChanged(before, state);
    }

    const RadioScenario scenario_;
    const std::weak_ptr<World> world_;
    std::atomic<RadioState> state_;
};

}  // namespace

std::shared_ptr<platform::Radio> makeRadio(const RadioScenario& scenario, std::weak_ptr<World> world) {
    return std::make_shared<SimRadio>(scenario, std::move(world));
}

}  // namespace sim

namespace platform {

AsyncOperationPtr<RadioList> getRadiosAsync() {
    const auto world = sim::requireWorld();
    if (const auto fault = world->pass({sim::FaultPoint::Call::radios}))
        return sim::faultyOperation<RadioList>(*world->runtime(), *fault);
    return sim::completed(world->radios());
}

}  // namespace platform
