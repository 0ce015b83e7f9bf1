// Simulated radios.
#pragma once

#include <memory>

#include "platform/radio.h"
#include "scenario.h"

namespace sim {

class World;

std::shared_ptr<platform::Radio> makeRadio(const RadioScenario& scenario, std::weak_ptr<World> world);

}  // namespace sim
