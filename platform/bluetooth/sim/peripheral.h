// A simulated peripheral: a faithful peer of the TIO profile, and the handles that make it misbehave.
//
// Threads: any. Its lock is never held while the program's code runs.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "fault.h"
#include "link.h"
#include "pacer.h"
#include "platform/async.h"
#include "platform/gatt.h"
#include "record_ring.h"
#include "scenario.h"
#include "world_runtime.h"

namespace sim {

// Since the world began, over all connections. "In" is what the peripheral received.
struct PeripheralCounters {
    std::uint64_t bytesIn = 0;
    std::uint64_t bytesOut = 0;
    std::uint64_t packetsIn = 0;
    std::uint64_t packetsOut = 0;
    std::uint64_t creditsGranted = 0;      // to the host
    std::uint64_t creditsUsed = 0;         // by the host
    std::uint64_t hostCreditsGranted = 0;  // by the host, to the peripheral
    std::uint64_t hostCreditsUsed = 0;     // by the peripheral
    std::uint64_t violations = 0;
    std::uint64_t connections = 0;
};

class TioPeripheral : public std::enable_shared_from_this<TioPeripheral> {
  public:
    using Status = platform::GattCommunicationStatus;

    TioPeripheral(PeripheralScenario scenario, std::shared_ptr<WorldRuntime> runtime);

    const PeripheralScenario& scenario() const { return scenario_; }
    WorldRuntime& runtime() const { return *runtime_; }
    const std::shared_ptr<WorldRuntime>& sharedRuntime() const { return runtime_; }

    // --- what a test or a demo does with it
    PeripheralCounters counters() const;
    bool connected() const;
    // Sends the value as it is, even one that breaks the profile, if the host has subscribed. Without a value
    // the host's handler gets no event arguments. The peripheral counts it: data uses up a credit if there is
    // one, credits count as granted and an MTU as announced.
    void sendNotification(CharacteristicKind kind, Value value);
    void dropLink();
    // How many calls the host has made to it, and how many of the scenario's faults have happened.
    std::uint64_t hostCalls() const { return hostCalls_; }
    std::uint64_t faultsHappened() const;
    // What the host has asked of it on the latest connection, in order: "subscribe TXMTU indicate",
    // "write RXMTU 244 with response", "write RX 20 bytes without response". The first thousand; what a fault
    // kept away is not among them.
    std::vector<std::string> hostRequests() const;
    // The scenario's faults happen no more; what hangs goes on hanging.
    void repair();

    // --- what the back end does with it
    bool connect(Link& link);                            // false: out of reach
    void forget(Link& link);                             // called by the link's end
    std::optional<Fault> pass(const FaultPoint& point);  // the host makes a call
    platform::AsyncOperationPtr<Status> write(Link& link, CharacteristicKind kind,
                                              std::span<const std::uint8_t> value,
                                              platform::GattWriteOption option);
    platform::AsyncOperationPtr<Status> subscribe(
        Link& link, CharacteristicKind kind,
        platform::GattClientCharacteristicConfigurationDescriptorValue value);
    void addDelivery(Link& link, CharacteristicKind kind, std::shared_ptr<ValueDelivery> delivery);
    void removeDelivery(Link& link, CharacteristicKind kind, const std::shared_ptr<ValueDelivery>& delivery);
    bool reachable(Link& link);  // connects a link that was never used

    bool servicesListed() const { return listed_; }
    void noteServicesListed() { listed_ = true; }
    bool paired() const { return paired_; }
    void setPaired() { paired_ = true; }

  private:
    struct WaitingWrite {
        std::vector<std::uint8_t> bytes;
        std::shared_ptr<Operation<Status>> operation;
    };

    // What starts anew with each connection.
    struct Connection {
        std::array<bool, kCharacteristicKinds> subscribed{};
        std::uint64_t hostCredits = 0;      // the host may still send that many packets
        std::uint64_t ownCredits = 0;       // and the peripheral that many
        std::size_t hostMtu = kDefaultMtu;  // limit of the host's packets
        std::size_t ownMtu = kDefaultMtu;   // limit of the peripheral's packets
        RecordRing echo;                    // received, not yet sent back
        std::vector<std::uint8_t> echoing;  // the packet that is being sent back
        std::size_t echoed = 0;             // bytes of it that are out
        std::uint64_t produced = 0;         // bytes of the source that are out
        bool mute = false;                  // its data notifications hang
        Pacer in;
        Pacer out;
        std::deque<WaitingWrite> waiting;
        std::vector<std::string> requests;
        bool tickAhead = false;
    };

    bool takesNotes() const;
    bool connectLocked(Link& link);
    bool reachableLocked(Link& link);
    void dropLocked();
    void resetSerial();
    std::optional<Fault> passLocked(const FaultPoint& point);

    Status accept(CharacteristicKind kind, std::span<const std::uint8_t> value);
    Status acceptData(std::span<const std::uint8_t> value);
    Status acceptCredits(std::span<const std::uint8_t> value);
    Status acceptMtu(std::span<const std::uint8_t> value);
    Status refuse();
    platform::AsyncOperationPtr<Status> waitForInterval(std::span<const std::uint8_t> value);
    void enable(CharacteristicKind kind);

    void pump();
    void regrant();
    void noteIndication(CharacteristicKind kind, std::span<const std::uint8_t> value);
    void indicate(CharacteristicKind kind, Value value);
    void deliver(CharacteristicKind kind, Value value);
    bool hasOutgoing() const;
    void nextPacket();
    bool sendData();

    void scheduleTick(Pacer::Clock::time_point time);
    void tick(std::uint64_t connection);

    const PeripheralScenario scenario_;
    const std::shared_ptr<WorldRuntime> runtime_;
    std::atomic<std::uint64_t> hostCalls_ = 0;
    std::atomic<bool> listed_ = false;
    std::atomic<bool> paired_;
    mutable std::mutex mutex_;  // guards everything below
    FaultTable faults_;
    PeripheralCounters counters_;
    Link* current_ = nullptr;  // the link that has the connection
    Connection connection_;
    std::vector<std::uint8_t> packet_;  // the notification that is being made
};

}  // namespace sim
