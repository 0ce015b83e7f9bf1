// The simulated world, used through the interfaces of platform/ as the program does.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <mutex>
#include <numeric>
#include <thread>
#include <vector>

#include "platform/bluetooth/sim/world.h"
#include "platform/gatt.h"
#include "platform/radio.h"
#include "tests/eventually.h"

namespace {

using namespace std::chrono_literals;
using enum sim::CharacteristicKind;
using platform::AsyncStatus;
using test::eventually;
using Bytes = std::vector<std::uint8_t>;
using Status = platform::GattCommunicationStatus;

constexpr auto kSuccess = Status::success;
constexpr auto kRefused = Status::protocolError;
constexpr auto kUnreachable = Status::unreachable;

template <class Operation>
auto await(const Operation& operation) {
    EXPECT_TRUE(eventually([&] { return operation->status() != AsyncStatus::started; }));
    return operation->getResults();
}

// Collects the values of one subscription. A missing value becomes an empty packet.
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

    std::mutex gate;  // while it is locked the handler waits

  private:
    mutable std::mutex mutex_;
    std::vector<Bytes> packets_;
};

// A host that is connected to the peripheral of the world and has its characteristics.
struct Host {
    std::shared_ptr<platform::BluetoothLEDevice> device =
        await(platform::bluetoothLEDeviceFromAddressAsync(0x001A7DDA7113));
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
    void subscribeAll(std::uint8_t granted = 0) {
        for (const auto kind : {txMtu, crtx, tx})
            EXPECT_EQ(subscribe(kind), kSuccess);
        EXPECT_EQ(write(crrx, {granted}), kSuccess);
    }
    auto start(sim::CharacteristicKind kind, const Bytes& value) {
        using enum platform::GattWriteOption;
        return at(kind).writeValueAsync(value, kind == rx ? writeWithoutResponse : writeWithResponse);
    }
    Status write(sim::CharacteristicKind kind, const Bytes& value) { return await(start(kind, value)); }
    std::size_t creditsGranted() const {
        const auto all = credits.bytes();
        return std::accumulate(all.begin(), all.end(), std::size_t{0});
    }
    Status lookUp() { return await(device->getGattServicesForUuidAsync(sim::kTioService)).status; }
    bool connected() const { return static_cast<bool>(device->connectionStatus()); }
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
    Host host;
    EXPECT_EQ(host.write(rx, {1}), kRefused) << "no credit";
    EXPECT_EQ(host.subscribe(crtx), kSuccess);
    EXPECT_EQ(host.write(rx, Bytes(21, 0)), kRefused) << "the MTU is 20 until another was announced";
    EXPECT_EQ(host.write(rx, Bytes(20, 0)), kSuccess);
    EXPECT_EQ(host.subscribe(txMtu), kSuccess);
    EXPECT_EQ(host.write(rx, Bytes(245, 0)), kRefused);
    EXPECT_EQ(host.write(rx, Bytes(244, 7)), kSuccess);
    const std::pair<sim::CharacteristicKind, Bytes> breaches[] = {
        {crrx, {}}, {crrx, {1, 2}}, {rxMtu, {1}}, {rxMtu, {0, 0}}, {tx, {1}}};
    for (const auto& [kind, value] : breaches)
        EXPECT_EQ(host.write(kind, value), kRefused);
    EXPECT_EQ(host.subscribe(rx), kRefused);
    using enum platform::GattWriteOption;
    EXPECT_EQ(await(host.at(rx).writeValueAsync(Bytes{1}, writeWithResponse)), kRefused);
    EXPECT_EQ(await(host.at(crrx).writeValueAsync(Bytes{1}, writeWithoutResponse)), kRefused);
    EXPECT_EQ(peripheral.counters().violations, 11U);
    EXPECT_EQ(peripheral.counters().bytesIn, 264U);
}

TEST(SimPeripheral, EchoesInOrderWithinTheHostsCreditsAndMtu) {
    const sim::WorldScope scope;
    Host host;
    host.subscribeAll(2);
    Bytes sent;
    for (std::size_t i = 1; i <= 200; ++i) {
        ASSERT_TRUE(eventually([&] { return host.creditsGranted() >= i; }));
        ASSERT_EQ(host.write(rx, Bytes(i, static_cast<std::uint8_t>(i))), kSuccess);
        sent.insert(sent.end(), i, static_cast<std::uint8_t>(i));
    }

    EXPECT_EQ(host.write(rxMtu, {100, 0}), kSuccess);
    for (std::size_t granted = 2; host.data.bytes().size() < sent.size(); granted += 30) {
        ASSERT_TRUE(host.data.waitFor(scope.world().peripheral(0).counters().packetsOut));
        ASSERT_LE(host.data.packets().size(), granted);
        ASSERT_EQ(host.write(crrx, {30}), kSuccess);
    }
    EXPECT_EQ(host.data.bytes(), sent);
    EXPECT_EQ(scope.world().peripheral(0).counters().violations, 0U);
    for (const auto& packet : host.data.packets())
        EXPECT_LE(packet.size(), 100U);
}

TEST(SimPeripheral, ABlockedHandlerHoldsBackItsOwnCharacteristicOnly) {
    const sim::WorldScope scope(worldWith(R"("serial":"source:5000","initial_credits":4,"regrant_at":3)"));
    Host host;
    std::unique_lock blocked(host.data.gate);
    host.subscribeAll(255);
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
    host.subscribeAll(255);
    ASSERT_TRUE(host.credits.waitFor(1));
    const auto begin = std::chrono::steady_clock::now();
    std::vector<platform::AsyncOperationPtr<Status>> writes(20);
    for (auto& write : writes)
        write = host.start(rx, {1});
    EXPECT_EQ(writes.back()->status(), AsyncStatus::started);
    for (const auto& write : writes)
        EXPECT_EQ(await(write), kSuccess);
    // Twenty writes, two in an interval, take at least eight whole intervals and parts of two others.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 80ms);
    ASSERT_TRUE(host.data.waitFor(writes.size()));

    for (auto& write : writes)
        write = host.start(rx, {1});
    scope.world().peripheral(0).dropLink();
    EXPECT_EQ(await(writes.back()), kUnreachable) << "still waiting for its interval";
}

TEST(SimPeripheral, LinksDropComeBackAndAreTakenOver) {
    const sim::WorldScope scope;
    auto& peripheral = scope.world().peripheral(0);
    Host host;
    host.subscribeAll();
    peripheral.dropLink();
    EXPECT_EQ(host.subscribe(tx), kUnreachable);
    EXPECT_EQ(host.lookUp(), kSuccess);
    EXPECT_EQ(host.subscribe(tx), kSuccess) << "a look-up connects again";
    const auto radio = await(platform::getRadiosAsync())->at(0);
    radio->setStateAsync(platform::RadioState::off);
    EXPECT_FALSE(host.connected());
    EXPECT_EQ(host.lookUp(), kUnreachable);
    radio->setStateAsync(platform::RadioState::on);
    EXPECT_EQ(host.lookUp(), kSuccess);

    auto newer = std::make_unique<Host>();
    EXPECT_EQ(host.write(rx, {1}), kUnreachable);
    EXPECT_EQ(newer->write(rx, {1}), kRefused) << "credits do not pass on";
    newer.reset();
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
    platform::Subscription inside = host.at(tx).onValueChanged([&](auto*, auto*) {
        ++calls;
        inside.reset();
    });
    host.subscribeAll(255);
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
    for (const auto kind : {txMtu, crtx})
        host.subscribe(kind);
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

}  // namespace
