#include "platform/runtime.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "platform/version.h"
#include "world.h"

namespace {

std::unique_ptr<sim::WorldScope> running;  // the runtime's, used by the main thread only

sim::Scenario configuredScenario() {
    const char* file = std::getenv("ZIQBLE_SCENARIO");
    if (!file || !*file) return {};
    return sim::readScenario(file);
}

}  // namespace

namespace platform {

BluetoothRuntime::BluetoothRuntime() {
    running = std::make_unique<sim::WorldScope>(configuredScenario());
}

BluetoothRuntime::~BluetoothRuntime() {
    running->world().end();
    for (const auto& line : running->world().summary())
        std::fputs((line + "\n").c_str(), stderr);
    running.reset();
}

OsVersion osVersion() {
    const auto world = sim::currentWorld();
    return world ? world->scenario().osVersion : OsVersion();
}

}  // namespace platform
