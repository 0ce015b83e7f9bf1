#include "transfer.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iostream>

namespace ziqble {

namespace {

constexpr auto kStall = 30s;
constexpr auto kTick = 200ms;
constexpr std::size_t kBarWidth = 40;

}  // namespace

// Fails when for that long the bridge has not sent a byte. A link may be so slow that one piece takes longer.
Awaitable<> Transfer::watchForStall(Seconds limit) {
    std::optional<std::uint64_t> before;
    for (Seconds pause = std::min<Seconds>(limit, kTick);; pause = limit) {
        co_await sleepFor(pause);
        const std::uint64_t now = (co_await link_.bridge.stats())["tx"];
        if (std::exchange(before, now) == now) break;
    }
    throw Failure(Code::timeOver, "the peripheral took no byte for too long",
                  "It grants no credits: is its serial side read?");
}

Awaitable<> Transfer::sendAll(FileStream& input) {
    const Seconds idle(options_.idle);
    while (options_.bytes == 0 || link_.sent < options_.bytes) {
        const auto piece = co_await input.read();
        if (piece.empty()) break;
        ByteSpan bytes(piece);
        if (options_.bytes > 0)
            bytes = bytes.first(std::min<std::uint64_t>(bytes.size(), options_.bytes - link_.sent));
        if (idle.count() > 0) {
            co_await race(link_.write(bytes), watchForStall(idle));
        } else {
            co_await link_.write(bytes);
        }
    }
    co_await link_.settle(idle.count() > 0 ? idle : kStall);
}

Awaitable<> Transfer::receiveAll(FileStream& output) {
    std::array<std::uint8_t, 16384> buffer;
    std::uint64_t taken = 0;
    while (options_.bytes == 0 || taken < options_.bytes) {
        const std::uint64_t room = options_.bytes == 0 ? buffer.size() : options_.bytes - taken;
        const std::size_t count =
            co_await link_.read(std::span(buffer).first(std::min<std::uint64_t>(room, buffer.size())));
        writing_ = true;
        co_await output.write(ByteSpan(buffer).first(count));
        writing_ = false;
        taken += count;
        lastArrival_ = Clock::now();
    }
}

Awaitable<> Transfer::discardAll() {
    std::array<std::uint8_t, 4096> buffer;
    for (;;)
        co_await link_.read(buffer);
}

Awaitable<> Transfer::untilIdle() {
    if (options_.idle <= 0) co_await sleepUntil(kNever);
    const Seconds idle(options_.idle);
    for (const auto begin = Clock::now();;) {
        const auto quietSince = writing_ ? Clock::now() : std::max(begin, lastArrival_);
        if (Clock::now() - quietSince >= idle) co_return;
        co_await sleepFor(idle - (Clock::now() - quietSince) + 1ms);
    }
}

Awaitable<> Transfer::showProgress(std::uint64_t total) {
    if (options_.file.empty() || !host::isTerminal(2)) co_await sleepUntil(kNever);
    const std::shared_ptr<void> lineEnd(nullptr, [](void*) { std::cerr << std::endl; });
    for (const auto begin = Clock::now();; co_await sleepFor(kTick)) {
        const std::uint64_t moved = std::max(link_.sent, link_.received);
        const double rate =
            static_cast<double>(moved) / 1000 / std::max(Seconds(Clock::now() - begin).count(), 0.001);
        std::string text = std::to_string(moved) + " bytes";
        if (total > 0) {
            const std::uint64_t done = std::min(moved, total);
            text = std::string(kBarWidth * done / total, '#');
            text.resize(kBarWidth, '.');
            text += " " + std::to_string(100 * done / total) + " %";
        }
        std::cerr << '\r' << text << "  " << std::lround(rate) << " kB/s  " << std::flush;
    }
}

void Transfer::checkCount() const {
    if (link_.received >= options_.bytes) return;
    throw Failure(Code::timeOver,
                  "only " + std::to_string(link_.received) + " of " + std::to_string(options_.bytes) +
                      " bytes have come",
                  "--idle gives the peripheral more time between two of them.");
}

}  // namespace ziqble
