// The connection to a bridge: its command pipe. docs/protocol.md has the commands and the lines.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "context.h"
#include "host.h"

namespace ziqble {

// The statistics, as Bridge::stats() gives them, for people.
std::string statsText(const nlohmann::json& stats);

// How long a bridge that does not react can hold up the end of a command.
inline constexpr auto kEndTime = 5s;

class Bridge {
  public:
    // Connects, and sees to it that the bridge serves this client; starts one where the command line says so.
    // Throws Failure: no bridge, or another client has the pipe.
    static Awaitable<std::unique_ptr<Bridge>> open(Context& context);
    ~Bridge();
    Bridge(const Bridge&) = delete;
    Bridge& operator=(const Bridge&) = delete;

    // Sends the command and gives the next line that is not the link's. Throws Failure: the bridge has gone,
    // or the time is over. An answer that comes too late is not taken for that to a later command.
    Awaitable<std::string> ask(std::string command, Seconds limit = 10s);
    // A further line of the answer, as ask().
    Awaitable<std::string> answer(std::string command, Seconds limit);
    // The answer to "stats", with the names that "ziqble stats --json" prints.
    Awaitable<nlohmann::json> stats(Seconds limit = 10s);
    // The next line that came from the link and not as an answer. After the answer to "connect" only lines of
    // the new link come. Nothing: the time is over. Throws Failure when the bridge has gone.
    Awaitable<std::optional<std::string>> linkLine(Clock::time_point deadline);
    // Sends a command that is answered by closing the pipe. Throws Failure when the time is over.
    Awaitable<> leave(std::string command, Seconds limit);
    // Leaves so that a link goes on, as the destructor does; a bridge that this object has started ends.
    Awaitable<> close();
    // Ends the link, if any, or its set-up.
    Awaitable<> disconnect();
    bool gone() const;

    Context& context;

  private:
    struct Connection;
    explicit Bridge(Context& context);
    Awaitable<host::PipeStream> openPipe(Clock::time_point& deadline);
    Awaitable<> probe(Clock::time_point deadline);
    Awaitable<> send(std::string command);

    std::unique_ptr<host::Child> program_;
    std::shared_ptr<Connection> connection_;
    int owed_ = 0;  // answers that have not come yet
    bool left_ = false;
};

// Ends when a signal asks for it, by throwing Interrupted.
Awaitable<> interruption(Context& context);

// Opens a bridge and lets the work use it until it ends, fails or a signal comes. Then comes the clean-up, if
// any, and the bridge is closed; a bridge that does not react holds this up for a few seconds only.
using BridgeWork = std::function<Awaitable<>(Bridge&)>;
Awaitable<> withBridge(Context& context, BridgeWork work, BridgeWork cleanUp = {});

}  // namespace ziqble
