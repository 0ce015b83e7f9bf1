#include "link.h"

#include <algorithm>
#include <asio/buffer.hpp>

namespace ziqble {

namespace {

constexpr auto kOpenTime = 5s;
constexpr auto kLookAgain = 5ms;
// The bridge counts a packet when it hands it over: that one may still wait for its place on the air.
constexpr auto kLastPacketTime = 250ms;
// The lines about a lost link come from several threads, and the data pipe closes after them.
constexpr auto kLastBytesTime = 500ms;

Failure notUp(const std::string& address, const std::string& line) {
    const char* const reason = line == "ERROR TIO"
                                   ? "no such peripheral in range, or it has no serial service"
                               : line == "ERROR EXP" ? "the Bluetooth system failed"
                               : line == "FAIL"      ? "the bridge could not begin"
                                                     : "the link was lost while it was set up";
    return {Code::noLink, "no link to " + address + ": " + reason + " (" + line + ")",
            "Is it switched on and near? \"ziqble scan\" lists those in range; the bridge's log tells more."};
}

}  // namespace

Awaitable<> bringLinkUp(Bridge& bridge, const LinkOptions& options) {
    const auto deadline = in(Seconds(options.limit));
    const std::string answer = co_await bridge.ask("connect " + options.address, 20s);
    if (answer != "OK") throw notUp(options.address, answer);
    const auto line = co_await bridge.linkLine(deadline);
    if (line == "CONNECT TIO") co_return;
    if (line) throw notUp(options.address, *line);
    throw Failure(Code::timeOver, "no link to " + options.address + " within the time",
                  "--time gives it more.");
}

Link::Link(Bridge& given, Trace& trace) : bridge(given), trace_(trace), data_(given.context.io) {}

Awaitable<> Link::up(const LinkOptions& options) {
    co_await bringLinkUp(bridge, options);
    const std::string& name = bridge.context.datPipe;
    asio::error_code error;
    for (const auto deadline = in(kOpenTime);; co_await sleepFor(kLookAgain)) {
        data_ = host::openPipe(bridge.context.io, name, error);
        if (!error) co_return;
        if (Clock::now() < deadline && (host::isBusy(error) || host::isMissing(error))) continue;
        throw Failure(host::isBusy(error) ? Code::busy : Code::failed,
                      "cannot open the data pipe " + name + ": " + error.message(),
                      "--dat-pipe has to name the bridge's, and no other program may have it.");
    }
}

Awaitable<> Link::lost() {
    std::string reason;
    std::exception_ptr bridgeGone;
    try {
        reason = *co_await bridge.linkLine(kNever);
    } catch (const Failure&) {
        bridgeGone = std::current_exception();
    }
    lost_ = true;
    std::uint64_t before = received;
    for (auto deadline = in(kLastBytesTime); !ended_ && Clock::now() < deadline;
         co_await sleepFor(kLookAgain)) {
        if (std::exchange(before, received) != received) deadline = in(kLastBytesTime);
    }
    if (bridgeGone) std::rethrow_exception(bridgeGone);
    throw Failure(Code::lost, "the link was lost (" + reason + ")", "\"ziqble serve\" reconnects by itself.");
}

Awaitable<> Link::end() {
    ended_ = true;
    co_await sleepFor(2 * kLastBytesTime);
    lost_ = true;
    throw Failure(Code::lost, "the link was lost: the bridge closed the data pipe", "Look into its log.");
}

Awaitable<std::size_t> Link::read(std::span<std::uint8_t> buffer) {
    asio::error_code error;
    const std::size_t count =
        co_await data_.async_read_some(asio::buffer(buffer.data(), buffer.size()), into(error));
    if (count == 0) co_await end();
    received += count;
    trace_.record(Direction::fromPeripheral, buffer.first(count));
    co_return count;
}

Awaitable<> Link::write(ByteSpan& bytes) {
    while (!bytes.empty()) {
        const ByteSpan piece = bytes.first(std::min(bytes.size(), host::kLargestWrite));
        asio::error_code error;
        std::size_t count =
            co_await data_.async_write_some(asio::buffer(piece.data(), piece.size()), into(error));
        // What may have been taken counts as sent, and may then be told lost: nothing goes out twice.
        if (error && !host::kFailedWriteTakesNothing) count = piece.size();
        bytes = bytes.subspan(count);
        sent += count;
        if (count > 0) trace_.record(Direction::toPeripheral, piece.first(count));
        if (error) co_await end();
    }
}

Awaitable<> Link::settle(Seconds limit) {
    std::uint64_t before = 0;
    for (auto deadline = in(limit);; co_await sleepFor(4 * kLookAgain)) {
        const std::uint64_t now = (co_await bridge.stats())["tx"];
        if (now >= sent) break;
        if (std::exchange(before, now) != now) deadline = in(limit);
        if (Clock::now() < deadline) continue;
        throw Failure(Code::timeOver,
                      "the peripheral takes no more bytes: " + std::to_string(sent - now) + " wait",
                      "It grants no credits: is its serial side read?");
    }
    co_await sleepFor(kLastPacketTime);
}

Awaitable<nlohmann::json> Link::account() {
    nlohmann::json account{{"sent", sent},
                           {"received", received},
                           {"link_lost", lost_},
                           {"lost_to_peripheral", nullptr},
                           {"lost_from_peripheral", nullptr},
                           {"receipt", "unknown"}};
    try {
        const nlohmann::json stats = co_await bridge.stats(kEndTime / 2);
        const std::uint64_t rx = stats["rx"], tx = stats["tx"];
        account["lost_to_peripheral"] = sent - std::min(sent, tx);
        account["lost_from_peripheral"] = rx - std::min(received, rx);
    } catch (const Failure&) {
        // Not known then.
    }
    co_return account;
}

std::string accountText(const nlohmann::json& account) {
    const auto lost = [&](const char* name) {
        if (account[name].is_null()) return std::string("an unknown number lost");
        return (account["link_lost"] ? "at least " : "") + account[name].dump() + " lost";
    };
    return account["sent"].dump() + " bytes sent (" + lost("lost_to_peripheral") + "), " +
           account["received"].dump() + " bytes received (" + lost("lost_from_peripheral") +
           "); that the peripheral has got what was sent is not known: the profile has no receipt";
}

Awaitable<> withLink(Context& context, LinkOptions options, std::function<Awaitable<>(Link&)> work) {
    Trace trace(options.trace);
    std::unique_ptr<Link> link;
    const BridgeWork moveBytes = [&](Bridge& bridge) -> Awaitable<> {
        auto made = std::make_unique<Link>(bridge, trace);
        co_await made->up(options);
        link = std::move(made);
        co_await work(*link);
    };
    const BridgeWork takeDown = [&](Bridge& bridge) -> Awaitable<> {
        if (link) {
            const nlohmann::json account = co_await link->account();
            context.tell(accountText(account), account);
        }
        co_await bridge.disconnect();
    };
    co_await withBridge(context, moveBytes, takeDown);
}

}  // namespace ziqble
