// The peripheral's side of the profile: credits, MTU and the serial bytes. Everything here runs under its
// lock.
#include <algorithm>

#include "peripheral.h"

namespace sim {

namespace {

constexpr std::size_t kEchoRoom = 1 << 20;
constexpr std::uint64_t kLargestGrant = 255;

// Bytes of a source: any loss, swap or repetition shows.
std::uint8_t sourceByte(std::uint64_t position) {
    return static_cast<std::uint8_t>(position + position / 251);
}

}  // namespace

TioPeripheral::Status TioPeripheral::refuse() {
    ++counters_.violations;
    return Status::protocolError;
}

TioPeripheral::Status TioPeripheral::accept(CharacteristicKind kind, std::span<const std::uint8_t> value) {
    switch (kind) {
        case CharacteristicKind::rx:
            return acceptData(value);
        case CharacteristicKind::crrx:
            return acceptCredits(value);
        case CharacteristicKind::rxMtu:
            return acceptMtu(value);
        case CharacteristicKind::tx:
        case CharacteristicKind::crtx:
        case CharacteristicKind::txMtu:
            break;
    }
    return refuse();
}

TioPeripheral::Status TioPeripheral::acceptData(std::span<const std::uint8_t> value) {
    if (connection_.hostCredits == 0 || value.size() > connection_.hostMtu) return refuse();
    --connection_.hostCredits;
    ++counters_.creditsUsed;
    ++counters_.packetsIn;
    counters_.bytesIn += value.size();
    if (scenario_.serial == SerialBehaviour::echo && !value.empty()) connection_.echo.push(value);
    pump();
    return Status::success;
}

TioPeripheral::Status TioPeripheral::acceptCredits(std::span<const std::uint8_t> value) {
    if (value.size() != 1) return refuse();
    connection_.ownCredits += value[0];
    counters_.hostCreditsGranted += value[0];
    pump();
    return Status::success;
}

TioPeripheral::Status TioPeripheral::acceptMtu(std::span<const std::uint8_t> value) {
    if (value.size() != 2) return refuse();
    const std::size_t mtu = value[0] + 256U * value[1];
    if (mtu == 0) return refuse();
    connection_.ownMtu = mtu;
    return Status::success;
}

// Sends what may be sent now, then tells the host how much it may send.
void TioPeripheral::pump() {
    while (connection_.subscribed[indexOf(CharacteristicKind::tx)] && connection_.ownCredits > 0 &&
           hasOutgoing()) {
        if (!connection_.out.take()) {
            scheduleTick(connection_.out.nextInterval());
            break;
        }
        nextPacket();
        if (!sendData()) return;
    }
    regrant();
}

bool TioPeripheral::hasOutgoing() const {
    switch (scenario_.serial) {
        case SerialBehaviour::sink:
            return false;
        case SerialBehaviour::echo:
            return connection_.echoed < connection_.echoing.size() || !connection_.echo.empty();
        case SerialBehaviour::source:
            return scenario_.sourceBytes == 0 || connection_.produced < scenario_.sourceBytes;
    }
    return false;
}

void TioPeripheral::nextPacket() {
    if (scenario_.serial == SerialBehaviour::source) {
        const auto left = scenario_.sourceBytes - connection_.produced;
        const auto size = scenario_.sourceBytes == 0 ? connection_.ownMtu
                                                     : std::min<std::uint64_t>(left, connection_.ownMtu);
        packet_.resize(static_cast<std::size_t>(size));
        for (auto& byte : packet_)
            byte = sourceByte(connection_.produced++);
        return;
    }
    auto& echoing = connection_.echoing;
    if (connection_.echoed == echoing.size()) {
        connection_.echo.pop(echoing);
        connection_.echoed = 0;
    }
    const auto size = std::min(echoing.size() - connection_.echoed, connection_.ownMtu);
    const auto first = echoing.begin() + static_cast<std::ptrdiff_t>(connection_.echoed);
    packet_.assign(first, first + static_cast<std::ptrdiff_t>(size));
    connection_.echoed += size;
}

// False when the link dropped instead.
bool TioPeripheral::sendData() {
    const auto fault = faults_.pass({FaultPoint::Call::notify, CharacteristicKind::tx});
    if (fault && fault->action == FaultAction::disconnect) {
        dropLocked();
        return false;
    }
    if (fault && fault->action == FaultAction::hang) connection_.mute = true;
    noteIndication(CharacteristicKind::tx, packet_);
    if (fault && fault->action == FaultAction::null) {
        deliver(CharacteristicKind::tx, std::nullopt);
    } else if (!fault && !connection_.mute) {
        deliver(CharacteristicKind::tx, packet_);
    }
    return true;
}

void TioPeripheral::regrant() {
    if (!connection_.subscribed[indexOf(CharacteristicKind::crtx)]) return;
    if (connection_.hostCredits > scenario_.regrantAt) return;
    const auto buffered = connection_.echo.payloadBytes() + connection_.echoing.size() - connection_.echoed;
    if (buffered >= kEchoRoom) return;
    while (connection_.hostCredits < scenario_.initialCredits) {
        const auto grant = std::min(scenario_.initialCredits - connection_.hostCredits, kLargestGrant);
        const std::array<std::uint8_t, 1> value = {static_cast<std::uint8_t>(grant)};
        indicate(CharacteristicKind::crtx, value);
    }
}

void TioPeripheral::indicate(CharacteristicKind kind, Value value) {
    noteIndication(kind, value.value_or(std::span<const std::uint8_t>()));
    deliver(kind, value);
}

void TioPeripheral::noteIndication(CharacteristicKind kind, std::span<const std::uint8_t> value) {
    if (kind == CharacteristicKind::tx) {
        ++counters_.packetsOut;
        counters_.bytesOut += value.size();
        if (connection_.ownCredits == 0) return;
        --connection_.ownCredits;
        ++counters_.hostCreditsUsed;
    } else if (kind == CharacteristicKind::crtx && !value.empty()) {
        connection_.hostCredits += value[0];
        counters_.creditsGranted += value[0];
    } else if (kind == CharacteristicKind::txMtu && !value.empty()) {
        // A packet may have been cut before a smaller MTU arrived, so the largest that was ever announced is
        // the limit.
        const std::size_t mtu = value[0] + (value.size() > 1 ? 256U * value[1] : 0U);
        connection_.hostMtu = std::max(connection_.hostMtu, mtu);
    }
}

void TioPeripheral::deliver(CharacteristicKind kind, Value value) {
    if (!connection_.subscribed[indexOf(kind)]) return;
    for (const auto& delivery : current_->deliveries_[indexOf(kind)])
        delivery->post(value);
}

platform::AsyncOperationPtr<TioPeripheral::Status> TioPeripheral::waitForInterval(
    std::span<const std::uint8_t> value) {
    auto operation = runtime_->pendingOperation<Status>();
    connection_.waiting.push_back({{value.begin(), value.end()}, operation});
    scheduleTick(connection_.in.nextInterval());
    return operation;
}

void TioPeripheral::scheduleTick(Pacer::Clock::time_point time) {
    if (std::exchange(connection_.tickAhead, true)) return;
    runtime_->at(time, [self = weak_from_this(), connection = counters_.connections] {
        if (const auto peripheral = self.lock()) peripheral->tick(connection);
    });
}

// A new interval: first what waits to come in, then what waits to go out.
void TioPeripheral::tick(std::uint64_t connection) {
    const std::lock_guard lock(mutex_);
    if (!current_ || counters_.connections != connection) return;
    connection_.tickAhead = false;
    while (current_ && !connection_.waiting.empty() && connection_.in.take()) {
        const auto write = std::move(connection_.waiting.front());
        connection_.waiting.pop_front();
        write.operation->complete(accept(CharacteristicKind::rx, write.bytes));
    }
    if (!current_) return;
    if (!connection_.waiting.empty()) scheduleTick(connection_.in.nextInterval());
    pump();
}

}  // namespace sim
