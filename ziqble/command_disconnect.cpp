#include "commands.h"

namespace ziqble {

void addDisconnect(CommandLine& line) {
    line.add("disconnect", "End the link", [](Bridge& bridge) -> Awaitable<> {
        co_await bridge.ask("disconnect");
        bridge.context.print("disconnected", {{"connected", false}});
    });
}

}  // namespace ziqble
