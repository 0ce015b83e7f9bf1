#include "commands.h"

namespace ziqble {

namespace {

Awaitable<> showOnce(Bridge& bridge) {
    const nlohmann::json stats = co_await bridge.stats();
    bridge.context.print(statsText(stats), stats);
}

// Leaves the bridge to others between two looks.
Awaitable<> showAgainAndAgain(Context& context, const double& pause) {
    for (const BridgeWork show = showOnce;;) {
        co_await withBridge(context, show);
        if (pause == 0) co_return;
        co_await race(sleepFor(Seconds(pause)), interruption(context));
    }
}

}  // namespace

void addStats(CommandLine& line) {
    const auto pause = std::make_shared<double>(0);
    line.addPlain("stats", "Show counters, version, radio, adapters and link",
                  [&context = line.context, pause] { return showAgainAndAgain(context, *pause); })
        ->add_option("--watch", *pause, "Again and again, this many seconds apart")
        ->check(numberFrom(0.1, kLongest));
}

}  // namespace ziqble
