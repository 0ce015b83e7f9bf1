// A link to a peripheral and its bytes, over a bridge.
#pragma once

#include "bridge.h"
#include "trace.h"

namespace ziqble {

// What the command line says about a link.
struct LinkOptions {
    std::string address;
    double limit = 60;  // seconds until the link has to be up
    std::string trace;  // file, "-" for standard error, or empty
};

// Throws Failure: the link did not come up.
Awaitable<> bringLinkUp(Bridge& bridge, const LinkOptions& options);

// What became of the bytes of one link by the bridge's counters: "sent", "received", "lost_to_peripheral",
// "lost_from_peripheral", the last two null when the bridge has gone and they are not known. After the loss
// of a link ("link_lost") they are the least that was lost: the bridge does not count what was under way.
std::string accountText(const nlohmann::json& account);

class Link {
  public:
    // `trace` has to outlive the link.
    Link(Bridge& bridge, Trace& trace);

    // Brings the link up and opens the data pipe. Throws Failure.
    Awaitable<> up(const LinkOptions& options);
    // Ends, with a Failure, when the link is lost, or the bridge has gone, and what came before has been
    // read.
    Awaitable<> lost();
    // At least one byte; waits for lost() to end everything when there are none any more.
    Awaitable<std::size_t> read(std::span<std::uint8_t> buffer);
    // Takes off the front of `bytes` what the bridge has got, also when it is cancelled. As read().
    Awaitable<> write(ByteSpan& bytes);
    // Waits until the bridge has sent everything to the peripheral. Throws Failure when for `limit` nothing
    // moves.
    Awaitable<> settle(Seconds limit);
    // To be called when the link has ended, or when nothing more is to be moved. Never throws.
    Awaitable<nlohmann::json> account();

    bool hasBeenLost() const { return lost_; }

    Bridge& bridge;
    std::uint64_t sent = 0, received = 0;

  private:
    Awaitable<> end();

    Trace& trace_;
    host::PipeStream data_;
    bool ended_ = false;  // the data pipe was closed
    bool lost_ = false;
};

// Opens a bridge, brings the link up, lets the work move bytes until it ends or a signal comes, takes the
// link down and tells on standard error what became of the bytes. The work runs lost() beside itself.
Awaitable<> withLink(Context& context, LinkOptions options, std::function<Awaitable<>(Link&)> work);

}  // namespace ziqble
