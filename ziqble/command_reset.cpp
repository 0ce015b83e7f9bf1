#include "commands.h"

namespace ziqble {

void addReset(CommandLine& line) {
    line.add("reset", "Switch the Bluetooth radio off and on", [](Bridge& bridge) -> Awaitable<> {
        co_await bridge.ask("resetbt", 60s);
        bridge.context.print("the radio was switched off and on", {{"reset", true}});
    });
}

}  // namespace ziqble
