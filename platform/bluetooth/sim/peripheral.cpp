#include "peripheral.h"

#include "faulty.h"

namespace sim {

namespace {

// Little-endian.
std::size_t numberIn(std::span<const std::uint8_t> value) {
    std::size_t number = 0;
    for (auto byte = value.rbegin(); byte != value.rend(); ++byte)
        number = number << 8 | *byte;
    return number;
}

std::string nameOf(CharacteristicKind kind) {
    return std::string(kCharacteristicNames[indexOf(kind)]);
}

std::string writeText(CharacteristicKind kind, std::span<const std::uint8_t> value, bool withResponse) {
    const bool number = (kind == CharacteristicKind::crrx && value.size() == 1) ||
                        (kind == CharacteristicKind::rxMtu && value.size() == 2);
    return "write " + nameOf(kind) + " " +
           (number ? std::to_string(numberIn(value)) : std::to_string(value.size()) + " bytes") +
           (withResponse ? " with response" : " without response");
}

std::string subscriptionText(CharacteristicKind kind,
                             platform::GattClientCharacteristicConfigurationDescriptorValue value) {
    static constexpr std::array kValues = {"none", "notify", "indicate"};
    return "subscribe " + nameOf(kind) + " " + kValues.at(static_cast<std::size_t>(value));
}

}  // namespace

Link::~Link() {
    peripheral_->forget(*this);
}

void Link::open() {
    state_.store(State::connected);
    sessionListeners_->call(platform::GattSessionStatus::active);
}

void Link::close() {
    if (state_.exchange(State::closed) == State::connected) {
        sessionListeners_->call(platform::GattSessionStatus::closed);
    }
}

TioPeripheral::TioPeripheral(PeripheralScenario scenario, std::shared_ptr<WorldRuntime> runtime)
    : scenario_(std::move(scenario)),
      runtime_(std::move(runtime)),
      paired_(scenario_.pairing.paired),
      faults_(scenario_.faults) {}

PeripheralCounters TioPeripheral::counters() const {
    const std::lock_guard lock(mutex_);
    return counters_;
}

bool TioPeripheral::connected() const {
    const std::lock_guard lock(mutex_);
    return current_ != nullptr;
}

void TioPeripheral::sendNotification(CharacteristicKind kind, Value value) {
    const std::lock_guard lock(mutex_);
    if (!current_) return;
    indicate(kind, value);
}

void TioPeripheral::repair() {
    const std::lock_guard lock(mutex_);
    faults_ = FaultTable({});
}

void TioPeripheral::dropLink() {
    const std::lock_guard lock(mutex_);
    dropLocked();
}

bool TioPeripheral::connect(Link& link) {
    const std::lock_guard lock(mutex_);
    return connectLocked(link);
}

bool TioPeripheral::connectLocked(Link& link) {
    if (current_ == &link) return true;
    if (!runtime_->bluetoothOn()) return false;
    dropLocked();
    current_ = &link;
    ++counters_.connections;
    connection_ = Connection();
    const auto start = Pacer::Clock::now();
    connection_.in = connection_.out = Pacer(scenario_.link, start);
    link.open();
    return true;
}

bool TioPeripheral::reachable(Link& link) {
    const std::lock_guard lock(mutex_);
    return reachableLocked(link);
}

// Objects that were got without connecting connect when they are first used, but never bring a lost
// connection back.
bool TioPeripheral::reachableLocked(Link& link) {
    if (link.state_.load() == Link::State::unused) return connectLocked(link);
    return current_ == &link;
}

void TioPeripheral::dropLocked() {
    if (!current_) return;
    for (const auto& write : connection_.waiting)
        write.operation->complete(Status::unreachable);
    connection_.waiting.clear();
    current_->close();
    current_ = nullptr;
}

void TioPeripheral::forget(Link& link) {
    const std::lock_guard lock(mutex_);
    if (current_ == &link) dropLocked();
}

std::optional<Fault> TioPeripheral::pass(const FaultPoint& point) {
    const std::lock_guard lock(mutex_);
    return passLocked(point);
}

std::optional<Fault> TioPeripheral::passLocked(const FaultPoint& point) {
    ++hostCalls_;
    return faults_.pass(point);
}

std::uint64_t TioPeripheral::faultsHappened() const {
    const std::lock_guard lock(mutex_);
    return faults_.happened();
}

std::vector<std::string> TioPeripheral::hostRequests() const {
    const std::lock_guard lock(mutex_);
    return connection_.requests;
}

bool TioPeripheral::takesNotes() const {
    constexpr std::size_t kMostRequests = 1000;  // a bench runs for days
    return connection_.requests.size() < kMostRequests;
}

platform::AsyncOperationPtr<TioPeripheral::Status> TioPeripheral::write(Link& link, CharacteristicKind kind,
                                                                        std::span<const std::uint8_t> value,
                                                                        platform::GattWriteOption option) {
    std::unique_lock lock(mutex_);
    if (!reachableLocked(link)) return completed(Status::unreachable);
    if (const auto fault = passLocked({FaultPoint::Call::write, kind})) {
        lock.unlock();
        return faultyOperation<Status>(*this, *fault);
    }
    const bool data = kind == CharacteristicKind::rx;
    const bool withResponse = option == platform::GattWriteOption::writeWithResponse;
    if (takesNotes()) connection_.requests.push_back(writeText(kind, value, withResponse));
    // Data can be written without response only, everything else with one only.
    if (data == withResponse) return completed(refuse());
    if (data && !(connection_.waiting.empty() && connection_.in.take())) return waitForInterval(value);

    return completed(accept(kind, value));
}

platform::AsyncOperationPtr<TioPeripheral::Status> TioPeripheral::subscribe(
    Link& link, CharacteristicKind kind,
    platform::GattClientCharacteristicConfigurationDescriptorValue value) {
    using Descriptor = platform::GattClientCharacteristicConfigurationDescriptorValue;
    std::unique_lock lock(mutex_);
    if (!reachableLocked(link)) return completed(Status::unreachable);
    if (const auto fault = passLocked({FaultPoint::Call::subscribe, kind})) {
        lock.unlock();
        return faultyOperation<Status>(*this, *fault);
    }
    if (takesNotes()) connection_.requests.push_back(subscriptionText(kind, value));
    if (kind == CharacteristicKind::rx || kind == CharacteristicKind::crrx ||
        kind == CharacteristicKind::rxMtu) {
        return completed(refuse());
    }
    if (value == Descriptor::none) {
        connection_.subscribed[indexOf(kind)] = false;
        return completed(Status::success);
    }
    if (value != (kind == CharacteristicKind::tx ? Descriptor::notify : Descriptor::indicate)) {
        return completed(refuse());
    }
    enable(kind);
    return completed(Status::success);
}

void TioPeripheral::enable(CharacteristicKind kind) {
    const bool again = std::exchange(connection_.subscribed[indexOf(kind)], true);
    if (kind == CharacteristicKind::txMtu) {
        const std::array<std::uint8_t, 2> value = {static_cast<std::uint8_t>(scenario_.txMtu & 0xFF),
                                                   static_cast<std::uint8_t>(scenario_.txMtu >> 8)};
        indicate(kind, value);
    }
    // A host that subscribes to credits once more begins a new session on a connection that its old one left
    // behind.
    if (kind == CharacteristicKind::crtx && again) resetSerial();
    pump();
}

void TioPeripheral::resetSerial() {
    connection_.hostCredits = connection_.ownCredits = 0;
    connection_.echo.clear();
    connection_.echoing.clear();
    connection_.echoed = 0;
    connection_.produced = 0;
}

void TioPeripheral::addDelivery(Link& link, CharacteristicKind kind,
                                std::shared_ptr<ValueDelivery> delivery) {
    const std::lock_guard lock(mutex_);
    link.deliveries_[indexOf(kind)].push_back(std::move(delivery));
}

void TioPeripheral::removeDelivery(Link& link, CharacteristicKind kind,
                                   const std::shared_ptr<ValueDelivery>& delivery) {
    const std::lock_guard lock(mutex_);
    std::erase(link.deliveries_[indexOf(kind)], delivery);
}

platform::SystemError listError(WorldRuntime& runtime, const Fault& fault, platform::SystemError none) {
    if (fault.action == FaultAction::hang) runtime.waitForEnd();
    if (fault.action != FaultAction::error) return none;
    return static_cast<platform::SystemError>(static_cast<std::uint32_t>(fault.code) & 0xFFFF);
}

void applyFault(TioPeripheral& peripheral, const Fault& fault) {
    if (fault.action == FaultAction::error || fault.action == FaultAction::throwError)
        throw platform::PlatformError(fault.code);
    if (fault.action == FaultAction::hang) peripheral.runtime().waitForEnd();
    if (fault.action == FaultAction::disconnect) peripheral.dropLink();
}

}  // namespace sim
