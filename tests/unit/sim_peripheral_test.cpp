// The simulated world through the seam that the program uses.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/bluetooth/sim/world.h"
#include "platform/gatt.h"
#include "platform/pairing.h"
#include "platform/radio.h"

namespace {

using namespace std::chrono_literals;
using enum sim::CharacteristicKind;
using platform::AsyncStatus;
using Bytes = std::vector<std::uint8_t>;
using Status = platform::GattCommunicationStatus;

constexpr std::uint64_t kAddress = 0x001A7DDA7113;
constexpr auto kSuccess = Status::success;
constexpr auto kRefused = Status::protocolError;
constexpr auto kUnreachable = Status::unreachable;

template <class Condition>
bool eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (!condition() && std::chrono::steady_clock::now() < end)
        std::this_thread::yield();
    return condition();
}

template <class Operation>
auto await(const Operation& operation) {
    EXPECT_TRUE(eventually([&] { return operation->status() != AsyncStatus::started; }));
    return operation->getResults();
}

// What one registration has received; an empty packet for a missing value.
class Inbox {
  public:
    void add(const platform::GattValueChangedEventArgs* args) {
        const std::scoped_lock lock(gate, mutex_);
        packets_.push_back(args ? Bytes(args->value.begin(), args->value.end()) : Bytes());
    }
    std::vector<Bytes> packets() const {
        const std::lock_guard lock(mutex_);
        return packets_;
    }
    bool waitFor(std::size_t packets) const {
        return eventually([&] { return this->packets().size() >= packets; });
    }
    Bytes bytes() const {
        Bytes all;
        for (const auto& packet : packets())
            all.insert(all.end(), packet.begin(), packet.end());
        return all;
    }

    std::mutex gate;  // holds back the handler

  private:
    mutable std::mutex mutex_;
    std::vector<Bytes> packets_;
};

// A host's session with the peripheral of a world.
struct Host {
    std::shared_ptr<platform::BluetoothLEDevice> device =
        await(platform::bluetoothLEDeviceFromAddressAsync(kAddress));
    std::shared_ptr<platform::GattDeviceService> service =
        await(device->getGattServicesForUuidAsync(sim::kTioService)).services->at(0);
    std::array<std::shared_ptr<platform::GattCharacteristic>, sim::kCharacteristicKinds> characteristics;
    Inbox data, credits, mtu;
    std::vector<platform::Subscription> subscriptions;

    Host() {
        for (std::size_t i = 0; i < characteristics.size(); ++i) {
            const auto uuid = sim::characteristicUuid(static_cast<sim::CharacteristicKind>(i));
            characteristics[i] = await(service->getCharacteristicsForUuidAsync(uuid)).characteristics->at(0);
        }
        for (const auto& [kind, inbox] : {std::pair{tx, &data}, {crtx, &credits}, {txMtu, &mtu}})
            subscriptions.push_back(
                at(kind).onValueChanged([into = inbox](auto*, auto* args) { into->add(args); }));
    }
    platform::GattCharacteristic& at(sim::CharacteristicKind kind) {
        return *characteristics[sim::indexOf(kind)];
    }
    Status subscribe(sim::CharacteristicKind kind) {
        using enum platform::GattClientCharacteristicConfigurationDescriptorValue;
        const auto value = kind == tx ? notify : indicate;
        return await(at(kind).writeClientCharacteristicConfigurationDescriptorAsync(value));
    }
    void subscribeAll() {
        for (const auto kind : {txMtu, crtx, tx})
            EXPECT_EQ(subscribe(kind), kSuccess);
    }
    auto start(sim::CharacteristicKind kind, const Bytes& value) {
        return at(kind).writeValueAsync(value, platform::GattWriteOption::writeWithoutResponse);
    }
    Status write(sim::CharacteristicKind kind, const Bytes& value) { return await(start(kind, value)); }
    Status lookUp() { return await(device->getGattServicesForUuidAsync(sim::kTioService)).status; }
    bool connected() const {
        return device->connectionStatus() == platform::BluetoothConnectionStatus::connected;
    }
};

std::string worldWith(const std::string& peripheral) {
    return R"({"peripherals":[{)" + peripheral + "}]}";
}

TEST(SimPeripheral, CreditsAndMtuAreAnnouncedAndGrantedAgain) {
    const sim::WorldScope scope(worldWith(R"("serial":"sink","initial_credits":300,"regrant_at":290)"));
    Host host;
    host.subscribeAll();
    ASSERT_TRUE(host.mtu.waitFor(1) && host.credits.waitFor(2));
    EXPECT_EQ(host.mtu.bytes(), (Bytes{0xF4, 0x00}));
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(host.write(rx, Bytes(244, 1)), kSuccess);
    ASSERT_TRUE(host.credits.waitFor(3));
    EXPECT_EQ(host.credits.bytes(), (Bytes{255, 45, 10}));
    EXPECT_EQ(scope.world().summary().at(0),
              "sim: TIO-SIM (00:1A:7D:DA:71:13): in 2440 bytes, out 0 bytes, credits granted 310 used 10, "
              "host credits granted 0 used 0, violations 0");
}

TEST(SimPeripheral, BreachesOfTheProfileAreRefusedAndCounted) {
    const sim::WorldScope scope(worldWith(R"("initial_credits":2,"regrant_at":0)"));
    auto& peripheral = scope.world().peripheral(0);
    Bytes received;
    peripheral.setApplication([&](auto bytes) { received.assign(bytes.begin(), bytes.end()); });
    Host host;
    EXPECT_EQ(host.write(rx, {1}), kRefused) << "no credit";
    EXPECT_EQ(host.subscribe(crtx), kSuccess);
    EXPECT_EQ(host.write(rx, Bytes(21, 0)), kRefused) << "the MTU is 20 until another was announced";
    EXPECT_EQ(host.write(rx, Bytes(20, 0)), kSuccess);
    EXPECT_EQ(host.subscribe(txMtu), kSuccess);
    EXPECT_EQ(host.write(rx, Bytes(245, 0)), kRefused);
    EXPECT_EQ(host.write(rx, Bytes(244, 7)), kSuccess);
    EXPECT_EQ(host.write(rx, {1}), kRefused) << "two credits were given";
    const std::pair<sim::CharacteristicKind, Bytes> breaches[] = {
        {crrx, {}}, {crrx, {1, 2}}, {rxMtu, {1}}, {rxMtu, {0, 0}}, {tx, {1}}};
    for (const auto& [kind, value] : breaches)
        EXPECT_EQ(host.write(kind, value), kRefused);
    EXPECT_EQ(host.subscribe(rx), kRefused);
    EXPECT_EQ(peripheral.counters().violations, 10U);
    EXPECT_EQ(peripheral.counters().bytesIn, 264U);
    EXPECT_EQ(received, Bytes(244, 7));
}

TEST(SimPeripheral, EchoesInOrderWithinTheHostsCreditsAndMtu) {
    const sim::WorldScope scope;
    Host host;
    host.subscribeAll();
    Bytes sent;
    const auto hasCredits = [&](std::size_t used) {
        for (const auto credits : host.credits.bytes())
            used -= std::min<std::size_t>(used, credits);
        return used == 0;
    };
    EXPECT_EQ(host.write(crrx, {2}), kSuccess);
    for (std::size_t i = 1; i <= 200; ++i) {
        ASSERT_TRUE(eventually([&] { return hasCredits(i); }));
        ASSERT_EQ(host.write(rx, Bytes(i, static_cast<std::uint8_t>(i))), kSuccess);
        sent.insert(sent.end(), i, static_cast<std::uint8_t>(i));
    }
    ASSERT_TRUE(host.data.waitFor(2));
    EXPECT_EQ(host.data.packets()[1], Bytes(2, 2)) << "a packet comes back as one";

    EXPECT_EQ(host.write(rxMtu, {100, 0}), kSuccess);
    for (std::size_t granted = 2; host.data.bytes().size() < sent.size(); granted += 30) {
        ASSERT_TRUE(host.data.waitFor(scope.world().peripheral(0).counters().packetsOut));
        ASSERT_LE(host.data.packets().size(), granted);
        ASSERT_EQ(host.write(crrx, {30}), kSuccess);
    }
    EXPECT_EQ(host.data.bytes(), sent);
    for (const auto& packet : host.data.packets())
        EXPECT_LE(packet.size(), 100U);
}

TEST(SimPeripheral, ABlockedHandlerHoldsBackItsOwnCharacteristicOnly) {
    const sim::WorldScope scope(worldWith(R"("serial":"source:5000","initial_credits":4,"regrant_at":3)"));
    Host host;
    std::unique_lock blocked(host.data.gate);
    host.subscribeAll();
    EXPECT_EQ(host.write(crrx, {255}), kSuccess);
    for (std::size_t i = 0; i < 10; ++i) {
        ASSERT_TRUE(host.credits.waitFor(i + 1));
        ASSERT_EQ(host.write(rx, {0}), kSuccess);
    }
    blocked.unlock();
    ASSERT_TRUE(eventually([&] { return host.data.bytes().size() == 5000; }));
    const auto bytes = host.data.bytes();
    for (std::size_t i = 0; i < bytes.size(); ++i)
        ASSERT_EQ(bytes[i], static_cast<std::uint8_t>(i + i / 251));
}

TEST(SimPeripheral, PacingKeepsToPacketsPerIntervalInBothDirections) {
    const sim::WorldScope scope(
        worldWith(R"("link":{"interval_us":10000,"packets_per_interval":2},"regrant_at":8)"));
    Host host;
    host.subscribeAll();
    EXPECT_EQ(host.write(crrx, {255}), kSuccess);
    ASSERT_TRUE(host.credits.waitFor(1));
    const auto begin = std::chrono::steady_clock::now();
    std::vector<platform::AsyncOperationPtr<Status>> writes(20);
    for (auto& write : writes)
        write = host.start(rx, {1});
    EXPECT_EQ(writes.back()->status(), AsyncStatus::started);
    for (const auto& write : writes)
        EXPECT_EQ(await(write), kSuccess);
    // The first two may use the rest of one interval, the last two the start of another.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 80ms);
    ASSERT_TRUE(host.data.waitFor(writes.size()));

    for (auto& write : writes)
        write = host.start(rx, {1});
    scope.world().peripheral(0).dropLink();
    EXPECT_EQ(await(writes.back()), kUnreachable) << "still waiting for its interval";
}

TEST(SimPeripheral, FaultsComeAfterTheirPassesAndAsOftenAsAsked) {
    const std::tuple<std::string, AsyncStatus, Status, platform::HResult> cases[] = {
        {"null", AsyncStatus::completed, kSuccess, 0},
        {"access-denied", AsyncStatus::completed, Status::accessDenied, 0},
        {"error:0x80000013", AsyncStatus::error, kSuccess, platform::kRoEClosed},
        {"cancel", AsyncStatus::canceled, kSuccess, 0},
    };
    for (const auto& [action, status, result, code] : cases) {
        const sim::WorldScope scope(
            worldWith(R"("faults":[{"on":"write:RX","after":2,"times":2,"do":")" + action + R"("}])"));
        Host host;
        host.subscribeAll();
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(host.write(rx, {1}), kSuccess);
        const auto operation = host.start(rx, {1});
        ASSERT_EQ(operation->status(), status) << action;
        EXPECT_EQ(operation->errorCode(), code);
        if (status == AsyncStatus::completed)
            EXPECT_EQ(operation->getResults(), result);
        else
            EXPECT_THROW(operation->getResults(), platform::PlatformError);
        host.start(rx, {1});
        EXPECT_EQ(scope.world().peripheral(0).counters().packetsIn, 2U);
        EXPECT_EQ(host.write(rx, {1}), kSuccess);
        EXPECT_EQ(scope.world().peripheral(0).counters().packetsIn, 3U);
    }
}

TEST(SimPeripheral, FaultyNotificationsAreEmptyLostOrTheLinksEnd) {
    const sim::WorldScope scope(worldWith(R"("serial":"source:200","faults":[{"on":"notify:TX","do":"null"},
        {"on":"notify:TX","after":1,"do":"no-operation"},{"on":"notify:TX","after":4,"do":"disconnect"}])"));
    Host host;
    scope.world().peripheral(0).sendNotification(tx, Bytes(3));  // lost: nobody has subscribed
    host.subscribeAll();
    EXPECT_EQ(host.write(crrx, {255}), kSuccess);
    ASSERT_TRUE(host.data.waitFor(5));
    EXPECT_FALSE(host.connected());
    const auto packets = host.data.packets();
    EXPECT_EQ(std::count(packets.begin(), packets.end(), Bytes()), 1) << "one came without a value";
    EXPECT_EQ(packets[2][0], 60) << "one was lost";
}

TEST(SimPeripheral, ANewerLinkTakesOverAndBeginsAnew) {
    const sim::WorldScope scope;
    Host older;
    older.subscribeAll();
    EXPECT_EQ(older.write(crrx, {40}), kSuccess);
    std::atomic<int> closed = 0;
    const auto session = older.service->session();
    const auto status = session->onSessionStatusChanged(
        [&](auto now) { closed += now == platform::GattSessionStatus::closed ? 1 : 100; });

    Host newer;
    EXPECT_TRUE(eventually([&] { return closed == 1; }));
    EXPECT_FALSE(older.connected());
    EXPECT_EQ(older.write(rx, {1}), kUnreachable);
    EXPECT_EQ(newer.write(rx, {1}), kRefused) << "credits do not pass on";
    newer.subscribeAll();
    EXPECT_EQ(newer.write(crrx, {40}), kSuccess);
    EXPECT_EQ(newer.write(rx, {9}), kSuccess);
    ASSERT_TRUE(newer.data.waitFor(1));
    EXPECT_TRUE(older.data.packets().empty());
}

TEST(SimPeripheral, LinksDropAndComeBack) {
    const sim::WorldScope scope;
    auto& peripheral = scope.world().peripheral(0);
    Host host;
    peripheral.dropLink();
    EXPECT_FALSE(host.connected());
    EXPECT_EQ(host.subscribe(tx), kUnreachable);
    EXPECT_EQ(host.lookUp(), kSuccess);
    EXPECT_TRUE(host.connected()) << "a look-up connects again";
    EXPECT_EQ(host.subscribe(tx), kSuccess);

    const auto radio = await(platform::getRadiosAsync())->at(0);
    radio->setStateAsync(platform::RadioState::off);
    EXPECT_FALSE(host.connected());
    EXPECT_EQ(host.lookUp(), kUnreachable);
    radio->setStateAsync(platform::RadioState::on);
    EXPECT_EQ(host.lookUp(), kSuccess);

    host.subscriptions.clear();
    host.service.reset();
    host.device.reset();
    EXPECT_TRUE(peripheral.connected()) << "the characteristics are still held";
    host.characteristics.fill(nullptr);
    EXPECT_FALSE(peripheral.connected());
}

TEST(SimPeripheral, ASubscriptionsEndWaitsForTheCallbackAndNoneFollows) {
    const sim::WorldScope scope(worldWith(R"("serial":"source:0")"));
    Host host;
    std::atomic<bool> entered = false, left = false, ended = false;
    std::atomic<int> late = 0, calls = 0;
    auto slow = host.at(tx).onValueChanged([&](auto*, auto*) {
        if (ended) ++late;
        entered = true;
        std::this_thread::sleep_for(5ms);
        left = true;
    });
    platform::Subscription inside;
    inside = host.at(tx).onValueChanged([&](auto*, auto*) {
        ++calls;
        inside.reset();
    });
    host.subscribeAll();
    EXPECT_EQ(host.write(crrx, {255}), kSuccess);
    ASSERT_TRUE(eventually([&] { return entered.load(); }));
    slow.reset();
    ended = true;
    EXPECT_TRUE(left);
    ASSERT_TRUE(host.data.waitFor(255));
    EXPECT_EQ(late, 0);
    EXPECT_EQ(calls, 1);
}

TEST(SimPeripheral, TheWorldsEndCancelsWhatHangsAndLeavesObjectsSafe) {
    auto scope = std::make_unique<sim::WorldScope>(worldWith(
        R"("faults":[{"on":"write:CRRX","do":"hang"},{"on":"services:all","times":0,"do":"hang"}],
           "link":{"interval_us":60000000,"packets_per_interval":1})"));
    Host host;
    host.subscribeAll();
    const auto hung = host.start(crrx, {40});
    EXPECT_EQ(host.write(rx, {1}), kSuccess);
    const auto paced = host.start(rx, {1});
    std::thread blocked([&] { EXPECT_TRUE(host.device->gattServices().empty()); });
    EXPECT_EQ(hung->status(), AsyncStatus::started);
    EXPECT_THROW(hung->getResults(), platform::PlatformError);
    scope.reset();
    blocked.join();
    EXPECT_EQ(hung->status(), AsyncStatus::canceled);
    EXPECT_EQ(paced->status(), AsyncStatus::canceled);
    EXPECT_EQ(host.write(rx, {1}), kUnreachable);
}

TEST(SimWorld, PairingFollowsTheHandlersAnswer) {
    using enum platform::DevicePairingResultStatus;
    const sim::WorldScope scope(worldWith(R"("pairing":{"kind":8})"));
    const auto found = [](std::uint64_t address) {
        return *await(platform::findAllDevicesAsync(platform::deviceSelectorFromBluetoothAddress(address)));
    };
    EXPECT_TRUE(found(1).empty());
    const auto pairing = found(kAddress).at(0)->pairing();
    const auto pair = [&] {
        const auto level = platform::DevicePairingProtectionLevel::none;
        return await(pairing->custom()->pairAsync(platform::DevicePairingKinds::confirmOnly, level));
    };
    EXPECT_EQ(pair(), requiredHandlerNotRegistered);
    const auto answer = [&](std::function<void(platform::DevicePairingRequestedEventArgs&)> handler) {
        const auto subscription = pairing->custom()->onPairingRequested(std::move(handler));
        return pair();
    };
    EXPECT_EQ(answer([](auto&) {}), rejectedByHandler);
    EXPECT_EQ(answer([](auto&) { throw std::runtime_error("no"); }), failed);
    EXPECT_FALSE(pairing->isPaired());
    EXPECT_EQ(answer([](auto& args) { args.accept(); }), paired);
    EXPECT_TRUE(pairing->isPaired());
}

}  // namespace
