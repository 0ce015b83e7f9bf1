#include "commands.h"

namespace ziqble {

// A link that is up goes on without this client.
void addConnect(CommandLine& line) {
    const auto options = std::make_shared<LinkOptions>();
    const auto up = std::make_shared<bool>(false);
    const auto connect = [options, up](Bridge& bridge) -> Awaitable<> {
        co_await bringLinkUp(bridge, *options);
        *up = true;
        bridge.context.print("connected to " + options->address +
                                 "; the link stays until \"ziqble disconnect\", also without a program on " +
                                 bridge.context.datPipe,
                             {{"connected", options->address}});
    };
    const auto cleanUp = [up](Bridge& bridge) -> Awaitable<> {
        if (!*up) co_await bridge.disconnect();
    };
    CLI::App* const command =
        line.add("connect", "Bring the link up and leave it so, for other programs on the data pipe", connect,
                 cleanUp);
    CommandLine::addAddress(command, *options);
}

}  // namespace ziqble
