#include "commands.h"

namespace ziqble {

void addExit(CommandLine& line) {
    line.add("exit", "End the bridge", [](Bridge& bridge) -> Awaitable<> {
        co_await bridge.leave("exit", 20s);
        bridge.context.print("the bridge has ended", {{"exit", true}});
    });
}

}  // namespace ziqble
