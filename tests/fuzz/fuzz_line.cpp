#include <chrono>
#include <cstdint>
#include <cstdlib>

#include "blescanner/cmdpipe_commands.h"
#include "blescanner/lecomm.h"
#include "blescanner/settings.h"
#include "blescanner/waiting.h"
#include "platform/bluetooth/sim/world.h"
#include "tests/fuzz/quiet_log.h"

namespace {

// Without radio and peripherals every command ends at once.
constexpr const char* kEmptyWorld =
    R"({"time_scale": 1000000, "radios": [], "adapters": [], "peripherals": []})";

}  // namespace

// The bytes of a client, in two reads.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const QuietLog quiet;
    static sim::WorldScope world(kEmptyWorld);
    // No pipe exists: replies are dropped, and the data pipe cannot be created under this name.
    blescanner::settings().datPipeName = L"/nonexistent/pipe";
    blescanner::CNamedPipe shell;
    blescanner::CommandSet commands(shell, blescanner::programEnd());
    blescanner::LineAccumulator line;
    const std::size_t half = size / 2;
    if (commands.dispatch({data, half}, line) == blescanner::CommandResult::goOn) {
        commands.dispatch({data + half, size - half}, line);
    }
    if (line.text().size() > blescanner::LineAccumulator::kLimit) std::abort();
    commands.stopSession();
    if (!blescanner::waitForLinkSessions(std::chrono::seconds(10))) std::abort();
    return 0;
}
