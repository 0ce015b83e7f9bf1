// Simulated adapters: the answers that the scenario gives them.
#include "platform/adapter.h"

#include <utility>

#include "faulty.h"
#include "world.h"

namespace sim {

namespace {

using platform::SystemError;

constexpr std::size_t kHciVersionAt = 278;
constexpr std::size_t kLmpVersionAt = 291;
constexpr SystemError kInvalidParameter = static_cast<SystemError>(87);

class SimAdapter final : public platform::Adapter {
  public:
    SimAdapter(AdapterScenario scenario, std::shared_ptr<World> world)
        : scenario_(std::move(scenario)), world_(std::move(world)) {}

    SystemError name(std::wstring& out) const override {
        if (scenario_.nameError == SystemError::none) out = scenario_.name;
        return scenario_.nameError;
    }

    SystemError localRadioInfo(platform::LocalRadioInfo& out) const override {
        if (scenario_.versionError != SystemError::none) return scenario_.versionError;
        out.fill(0);
        out[kHciVersionAt] = scenario_.hci;
        out[kLmpVersionAt] = scenario_.lmp;
        return SystemError::none;
    }

    // The three layouts have 8, 16 and 24 bytes.
    SystemError scanCommand(std::span<const std::uint8_t> command, std::span<std::uint8_t>) override {
        world_->scanCommands.note({command.begin(), command.end()});
        const std::size_t layout = command.size() / 8;
        if (command.size() % 8 != 0 || layout < 1 || layout > 3) return kInvalidParameter;
        return scenario_.scanCommandErrors[layout - 1];
    }

  private:
    const AdapterScenario scenario_;
    const std::shared_ptr<World> world_;
};

}  // namespace

}  // namespace sim

namespace platform {

AdapterList findAdapters() {
    AdapterList list;
    if (const auto world = sim::currentWorld()) {
        if (const auto fault = world->pass({sim::FaultPoint::Call::adapters})) {
            list.error = sim::listError(*world->runtime(), *fault, SystemError::noMoreItems);
            return list;
        }
        for (const auto& scenario : world->scenario().adapters) {
            list.adapters.push_back(std::make_shared<sim::SimAdapter>(scenario, world));
        }
    }
    if (list.adapters.empty()) list.error = SystemError::noMoreItems;
    return list;
}

}  // namespace platform
