// The simulated world through the seam that the program uses.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/advertisement.h"
#include "platform/bluetooth/sim/world.h"
#include "platform/gatt.h"
#include "platform/pairing.h"
#include "platform/radio.h"

namespace {

using namespace std::chrono_literals;
using platform::AsyncStatus;
using platform::GattCommunicationStatus;
using platform::GattWriteOption;
using sim::CharacteristicKind;
using Bytes = std::vector<std::uint8_t>;
using Descriptor = platform::GattClientCharacteristicConfigurationDescriptorValue;

constexpr std::uint64_t kAddress = 0x001A7DDA7113;
constexpr auto kPatience = 20s;

template <class Condition>
bool eventually(Condition condition) {
    for (const auto end = std::chrono::steady_clock::now() + kPatience; !condition();
         std::this_thread::yield()) {
        if (std::chrono::steady_clock::now() > end) return false;
    }
    return true;
}

template <class Operation>
auto await(const Operation& operation) {
    EXPECT_TRUE(eventually([&] { return operation->status() != AsyncStatus::started; }));
    return operation->getResults();
}

// What one registration has received.
class Inbox {
  public:
    platform::GattCharacteristic::ValueChangedHandler handler() {
        return [this](platform::GattCharacteristic* sender, const platform::GattValueChangedEventArgs* args) {
            std::unique_lock lock(mutex_);
            signal_.wait(lock, [this] { return !blocked_; });
            EXPECT_NE(sender, nullptr);
            ++count_;
            if (args) packets_.emplace_back(args->value.begin(), args->value.end());
        };
    }
    void block(bool blocked) {
        const std::lock_guard lock(mutex_);
        blocked_ = blocked;
        signal_.notify_all();
    }
    std::size_t count() const {
        const std::lock_guard lock(mutex_);
        return count_;
    }
    std::vector<Bytes> packets() const {
        const std::lock_guard lock(mutex_);
        return packets_;
    }
    Bytes bytes() const {
        Bytes all;
        for (const auto& packet : packets())
            all.insert(all.end(), packet.begin(), packet.end());
        return all;
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable signal_;
    bool blocked_ = false;
    std::size_t count_ = 0;
    std::vector<Bytes> packets_;
};

// A host's session with the peripheral of a world.
struct Host {
    std::shared_ptr<platform::BluetoothLEDevice> device =
        await(platform::bluetoothLEDeviceFromAddressAsync(kAddress));
    std::shared_ptr<platform::GattDeviceService> service;
    std::array<std::shared_ptr<platform::GattCharacteristic>, sim::kCharacteristicKinds> characteristics;
    Inbox data, credits, mtu, session;
    std::vector<platform::Subscription> subscriptions;

    Host() {
        service = await(device->getGattServicesForUuidAsync(sim::kTioService)).services->at(0);
        for (std::size_t i = 0; i < characteristics.size(); ++i) {
            const auto uuid = sim::characteristicUuid(static_cast<CharacteristicKind>(i));
            characteristics[i] = await(service->getCharacteristicsForUuidAsync(uuid)).characteristics->at(0);
        }
        listen(CharacteristicKind::tx, data);
        listen(CharacteristicKind::crtx, credits);
        listen(CharacteristicKind::txMtu, mtu);
    }
    ~Host() { subscriptions.clear(); }

    platform::GattCharacteristic& at(CharacteristicKind kind) { return *characteristics[sim::indexOf(kind)]; }
    void listen(CharacteristicKind kind, Inbox& inbox) {
        subscriptions.push_back(at(kind).onValueChanged(inbox.handler()));
    }
    GattCommunicationStatus subscribe(CharacteristicKind kind) {
        const auto value = kind == CharacteristicKind::tx ? Descriptor::notify : Descriptor::indicate;
        return await(at(kind).writeClientCharacteristicConfigurationDescriptorAsync(value));
    }
    void subscribeAll() {
        for (const auto kind :
             {CharacteristicKind::txMtu, CharacteristicKind::crtx, CharacteristicKind::tx}) {
            EXPECT_EQ(subscribe(kind), GattCommunicationStatus::success);
        }
    }
    platform::AsyncOperationPtr<GattCommunicationStatus> start(CharacteristicKind kind, const Bytes& value) {
        return at(kind).writeValueAsync(value, GattWriteOption::writeWithoutResponse);
    }
    GattCommunicationStatus write(CharacteristicKind kind, const Bytes& value) {
        return await(start(kind, value));
    }
    bool connected() const {
        return device->connectionStatus() == platform::BluetoothConnectionStatus::connected;
    }
};

constexpr auto kSuccess = GattCommunicationStatus::success;
constexpr auto kRefused = GattCommunicationStatus::protocolError;
constexpr auto kUnreachable = GattCommunicationStatus::unreachable;

std::string worldWith(const std::string& peripheral, const std::string& more = "") {
    return R"({"peripherals":[{)" + peripheral + "}]" + more + "}";
}

TEST(SimPeripheral, CreditsAndMtuAreAnnouncedAndGrantedAgain) {
    const sim::WorldScope scope(
        worldWith(R"("serial":"sink","tx_mtu":244,"initial_credits":300,"regrant_at":290)"));
    Host host;
    host.subscribeAll();
    ASSERT_TRUE(eventually([&] { return host.mtu.count() == 1 && host.credits.count() == 2; }));
    EXPECT_EQ(host.mtu.packets()[0], (Bytes{0xF4, 0x00}));
    EXPECT_EQ(host.credits.bytes(), (Bytes{255, 45}));
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(host.write(CharacteristicKind::rx, Bytes(244, 1)), kSuccess);
    ASSERT_TRUE(eventually([&] { return host.credits.count() == 3; }));
    EXPECT_EQ(host.credits.bytes(), (Bytes{255, 45, 10}));

    const auto counters = scope.world().peripheral(0).counters();
    EXPECT_EQ(counters.creditsGranted, 310U);
    EXPECT_EQ(counters.creditsUsed, 10U);
    EXPECT_EQ(counters.bytesIn, 2440U);
    EXPECT_EQ(counters.violations, 0U);
}

TEST(SimPeripheral, BreachesOfTheProfileAreRefusedAndCounted) {
    const sim::WorldScope scope(worldWith(R"("initial_credits":2,"regrant_at":0)"));
    Host host;
    const auto rx = CharacteristicKind::rx;
    EXPECT_EQ(host.write(rx, {1}), kRefused) << "no credit";
    EXPECT_EQ(host.subscribe(CharacteristicKind::crtx), kSuccess);
    EXPECT_EQ(host.write(rx, Bytes(21, 0)), kRefused) << "the MTU is 20 until another was announced";
    EXPECT_EQ(host.write(rx, Bytes(20, 0)), kSuccess);
    EXPECT_EQ(host.subscribe(CharacteristicKind::txMtu), kSuccess);
    EXPECT_EQ(host.write(rx, Bytes(245, 0)), kRefused);
    EXPECT_EQ(host.write(rx, Bytes(244, 0)), kSuccess);
    EXPECT_EQ(host.write(CharacteristicKind::crrx, {}), kRefused);
    EXPECT_EQ(host.write(CharacteristicKind::crrx, {1, 2}), kRefused);
    EXPECT_EQ(host.write(CharacteristicKind::rxMtu, {1}), kRefused);
    EXPECT_EQ(host.write(CharacteristicKind::rxMtu, {0, 0}), kRefused);
    EXPECT_EQ(host.write(CharacteristicKind::tx, {1}), kRefused);
    EXPECT_EQ(host.subscribe(CharacteristicKind::rx), kRefused);
    EXPECT_EQ(scope.world().peripheral(0).counters().violations, 9U);
    EXPECT_EQ(scope.world().peripheral(0).counters().bytesIn, 264U);
}

TEST(SimPeripheral, EchoesInOrderWithinTheHostsCreditsAndMtu) {
    const sim::WorldScope scope;
    Host host;
    host.subscribeAll();
    ASSERT_TRUE(eventually([&] { return host.credits.count() == 1; }));
    Bytes sent;
    std::size_t creditsSeen = 0;
    const auto creditsLeft = [&](std::size_t used) {
        creditsSeen = 0;
        for (const auto credit : host.credits.bytes())
            creditsSeen += credit;
        return creditsSeen > used;
    };
    EXPECT_EQ(host.write(CharacteristicKind::crrx, {2}), kSuccess);
    for (std::size_t i = 0; i < 200; ++i) {
        const Bytes packet(i + 1, static_cast<std::uint8_t>(i));
        ASSERT_TRUE(eventually([&] { return creditsLeft(i); }));
        ASSERT_EQ(host.write(CharacteristicKind::rx, packet), kSuccess);
        sent.insert(sent.end(), packet.begin(), packet.end());
    }
    ASSERT_TRUE(eventually([&] { return host.data.count() == 2; }));
    EXPECT_EQ(host.data.packets()[1], Bytes(2, 1)) << "a packet comes back as one";

    EXPECT_EQ(host.write(CharacteristicKind::rxMtu, {100, 0}), kSuccess);
    std::size_t granted = 2;
    while (host.data.bytes().size() < sent.size()) {
        ASSERT_EQ(host.write(CharacteristicKind::crrx, {30}), kSuccess);
        granted += 30;
        const auto& peripheral = scope.world().peripheral(0);
        ASSERT_TRUE(eventually([&] { return host.data.count() == peripheral.counters().packetsOut; }));
        ASSERT_LE(host.data.count(), granted);
    }
    EXPECT_EQ(host.data.bytes(), sent);
    for (const auto& packet : host.data.packets())
        EXPECT_LE(packet.size(), 100U);
    EXPECT_EQ(scope.world().peripheral(0).counters().violations, 0U);
}

TEST(SimPeripheral, ABlockedHandlerHoldsBackItsOwnCharacteristicOnly) {
    const sim::WorldScope scope(worldWith(R"("serial":"source:5000","initial_credits":4,"regrant_at":3)"));
    Host host;
    host.data.block(true);
    host.subscribeAll();
    EXPECT_EQ(host.write(CharacteristicKind::crrx, {255}), kSuccess);
    for (std::size_t i = 0; i < 10; ++i) {
        ASSERT_TRUE(eventually([&] { return host.credits.count() == i + 1; }));
        ASSERT_EQ(host.write(CharacteristicKind::rx, {0}), kSuccess);
    }
    EXPECT_EQ(host.data.count(), 0U);
    host.data.block(false);
    ASSERT_TRUE(eventually([&] { return host.data.bytes().size() == 5000; }));
    const auto bytes = host.data.bytes();
    for (std::size_t i = 0; i < bytes.size(); ++i)
        ASSERT_EQ(bytes[i], static_cast<std::uint8_t>(i + i / 251));
}

TEST(SimPeripheral, PacingKeepsToPacketsPerIntervalInBothDirections) {
    constexpr auto kInterval = 10ms;
    constexpr std::size_t kPackets = 20;
    const sim::WorldScope scope(
        worldWith(R"("link":{"interval_us":10000,"packets_per_interval":2},"regrant_at":8)"));
    Host host;
    host.subscribeAll();
    EXPECT_EQ(host.write(CharacteristicKind::crrx, {255}), kSuccess);
    ASSERT_TRUE(eventually([&] { return host.credits.count() == 1; }));
    const auto begin = std::chrono::steady_clock::now();
    std::vector<platform::AsyncOperationPtr<GattCommunicationStatus>> writes;
    Bytes sent;
    for (std::size_t i = 0; i < kPackets; ++i) {
        sent.push_back(static_cast<std::uint8_t>(i));
        writes.push_back(host.start(CharacteristicKind::rx, {sent.back()}));
    }
    EXPECT_EQ(writes.back()->status(), AsyncStatus::started);
    for (const auto& write : writes)
        EXPECT_EQ(await(write), kSuccess);
    // The first two may use the rest of one interval, the last two the start of another.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, kInterval * (kPackets / 2 - 2));
    ASSERT_TRUE(eventually([&] { return host.data.count() == kPackets; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, kInterval * (kPackets / 2 - 2));
    EXPECT_EQ(host.data.bytes(), sent);

    for (auto& write : writes)
        write = host.start(CharacteristicKind::rx, {1});
    scope.world().peripheral(0).dropLink();
    EXPECT_EQ(await(writes.back()), kUnreachable) << "still waiting for its interval";
}

TEST(SimPeripheral, FaultsComeAfterTheirPassesAndAsOftenAsAsked) {
    struct Case {
        std::string action;
        AsyncStatus status;
        GattCommunicationStatus result;  // of a completed operation
        platform::HResult code;          // of the failure
    };
    const Case cases[] = {
        {"null", AsyncStatus::completed, kSuccess, 0},
        {"unreachable", AsyncStatus::completed, kUnreachable, 0},
        {"protocol-error", AsyncStatus::completed, kRefused, 0},
        {"access-denied", AsyncStatus::completed, GattCommunicationStatus::accessDenied, 0},
        {"disconnect", AsyncStatus::completed, kUnreachable, 0},
        {"error:0x80000013", AsyncStatus::error, kSuccess, platform::kRoEClosed},
        {"cancel", AsyncStatus::canceled, kSuccess, platform::kECancelled},
    };
    const auto rx = CharacteristicKind::rx;
    for (const auto& item : cases) {
        SCOPED_TRACE(item.action);
        const sim::WorldScope scope(
            worldWith(R"("faults":[{"on":"write:RX","after":2,"times":2,"do":")" + item.action + R"("}])"));
        Host host;
        host.subscribeAll();
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(host.write(rx, {1}), kSuccess);
        const auto operation = host.start(rx, {1});
        ASSERT_EQ(operation->status(), item.status);
        EXPECT_EQ(operation->errorCode(), item.status == AsyncStatus::error ? item.code : 0);
        if (item.status == AsyncStatus::completed) {
            EXPECT_EQ(operation->getResults(), item.result);
            EXPECT_EQ(operation->getResults(), item.result) << "as often as wanted";
        } else {
            EXPECT_THROW(operation->getResults(), platform::PlatformError);
        }
        EXPECT_EQ(scope.world().peripheral(0).counters().packetsIn, 2U);
        if (item.action == "disconnect") {
            EXPECT_FALSE(host.connected());
            continue;
        }
        host.start(rx, {1});
        EXPECT_EQ(host.write(rx, {1}), kSuccess);
        EXPECT_EQ(scope.world().peripheral(0).counters().packetsIn, 3U);
    }

    const sim::WorldScope scope(worldWith(R"("faults":[{"on":"write:RX","do":"throw:0x80004004"},
        {"on":"write:RX","do":"no-operation"}, {"on":"characteristics","after":6,"times":0,"do":"error:0x80004005"}])"));
    Host host;
    EXPECT_THROW(host.start(rx, {1}), platform::PlatformError);
    EXPECT_EQ(host.start(rx, {1}), nullptr) << "the first rule is used up";
    EXPECT_THROW(host.service->getCharacteristics(sim::characteristicUuid(rx)), platform::PlatformError);
    EXPECT_THROW(await(host.service->getCharacteristicsForUuidAsync(sim::characteristicUuid(rx))),
                 platform::PlatformError);
}

TEST(SimPeripheral, FaultyNotificationsAreEmptyLostOrTheLinksEnd) {
    const sim::WorldScope scope(worldWith(R"("serial":"source:200","faults":[{"on":"notify:TX","do":"null"},
        {"on":"notify:TX","after":1,"do":"no-operation"},{"on":"notify:TX","after":4,"do":"disconnect"}])"));
    Host host;
    host.subscribeAll();
    EXPECT_EQ(host.write(CharacteristicKind::crrx, {255}), kSuccess);
    ASSERT_TRUE(eventually([&] { return host.data.count() == 5; }));
    EXPECT_FALSE(host.connected());
    EXPECT_EQ(host.data.packets().size(), 4U) << "one came without a value";
    EXPECT_EQ(host.data.packets()[1][0], 60) << "one was lost";
}

TEST(SimPeripheral, OddValuesComeFromTheTestItself) {
    const sim::WorldScope scope(worldWith(R"("initial_credits":0)"));
    auto& peripheral = scope.world().peripheral(0);
    Bytes received;
    peripheral.setApplication(
        [&](std::span<const std::uint8_t> bytes) { received.assign(bytes.begin(), bytes.end()); });
    Host host;
    peripheral.sendNotification(CharacteristicKind::tx, Bytes(3));
    host.subscribeAll();
    peripheral.sendNotification(CharacteristicKind::crtx, Bytes());
    peripheral.sendNotification(CharacteristicKind::crtx, Bytes{2, 7, 9});
    peripheral.sendNotification(CharacteristicKind::txMtu, Bytes{0xF0});
    peripheral.sendNotification(CharacteristicKind::tx, Bytes(1500));
    peripheral.sendNotification(CharacteristicKind::tx, std::nullopt);
    ASSERT_TRUE(eventually([&] { return host.data.count() == 2 && host.credits.count() == 2; }));
    EXPECT_EQ(host.data.packets().size(), 1U) << "the first came before the subscription";
    EXPECT_EQ(host.data.packets()[0].size(), 1500U);
    EXPECT_EQ(host.write(CharacteristicKind::rx, {5, 6}), kSuccess);
    EXPECT_EQ(host.write(CharacteristicKind::rx, {7}), kSuccess);
    EXPECT_EQ(received, Bytes{7});
    EXPECT_EQ(host.write(CharacteristicKind::rx, {8}), kRefused) << "two credits were given";
}

TEST(SimPeripheral, ANewerLinkTakesOverAndBeginsAnew) {
    const sim::WorldScope scope;
    Host older;
    older.subscribeAll();
    EXPECT_EQ(older.write(CharacteristicKind::crrx, {40}), kSuccess);
    EXPECT_EQ(older.write(CharacteristicKind::rx, Bytes(244, 1)), kSuccess);
    ASSERT_TRUE(eventually([&] { return older.data.count() == 13; }));
    std::atomic<int> closed = 0;
    const auto session = older.service->session();
    const auto status = session->onSessionStatusChanged([&](platform::GattSessionStatus now) {
        closed += now == platform::GattSessionStatus::closed ? 1 : 100;
    });

    Host newer;
    EXPECT_TRUE(eventually([&] { return closed == 1; }));
    EXPECT_FALSE(older.connected());
    EXPECT_TRUE(newer.connected());
    EXPECT_EQ(older.write(CharacteristicKind::rx, {1}), kUnreachable);
    EXPECT_EQ(newer.write(CharacteristicKind::rx, {1}), kRefused) << "credits do not pass on";
    newer.subscribeAll();
    EXPECT_EQ(newer.write(CharacteristicKind::crrx, {40}), kSuccess);
    EXPECT_EQ(newer.write(CharacteristicKind::rx, {9}), kSuccess);
    ASSERT_TRUE(eventually([&] { return newer.data.count() == 1; }));
    EXPECT_EQ(older.data.count(), 13U);
}

TEST(SimPeripheral, LinksDropAndComeBack) {
    const sim::WorldScope scope;
    auto& peripheral = scope.world().peripheral(0);
    Host host;
    EXPECT_TRUE(host.connected());
    peripheral.dropLink();
    EXPECT_FALSE(host.connected());
    EXPECT_EQ(host.subscribe(CharacteristicKind::tx), kUnreachable);
    EXPECT_EQ(await(host.device->getGattServicesForUuidAsync(sim::kTioService)).status, kSuccess);
    EXPECT_TRUE(host.connected()) << "a look-up connects again";
    EXPECT_EQ(host.subscribe(CharacteristicKind::tx), kSuccess);

    const auto radio = await(platform::getRadiosAsync())->at(0);
    radio->setStateAsync(platform::RadioState::off);
    EXPECT_FALSE(host.connected());
    EXPECT_EQ(await(host.device->getGattServicesForUuidAsync(sim::kTioService)).status, kUnreachable);
    radio->setStateAsync(platform::RadioState::on);
    EXPECT_EQ(await(host.device->getGattServicesForUuidAsync(sim::kTioService)).status, kSuccess);

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
    std::atomic<int> late = 0;
    auto slow = host.at(CharacteristicKind::tx).onValueChanged([&](auto*, auto*) {
        if (ended) ++late;
        entered = true;
        std::this_thread::sleep_for(5ms);
        left = true;
    });
    platform::Subscription inside;
    std::atomic<int> calls = 0;
    std::mutex made;
    std::unique_lock making(made);
    inside = host.at(CharacteristicKind::tx).onValueChanged([&](auto*, auto*) {
        const std::lock_guard lock(made);
        ++calls;
        inside.reset();
    });
    making.unlock();
    host.subscribeAll();
    EXPECT_EQ(host.write(CharacteristicKind::crrx, {255}), kSuccess);
    ASSERT_TRUE(eventually([&] { return entered.load(); }));
    slow.reset();
    ended = true;
    EXPECT_TRUE(left);
    ASSERT_TRUE(eventually([&] { return host.data.count() == 255; }));
    EXPECT_EQ(late, 0);
    EXPECT_EQ(calls, 1);
}

TEST(SimPeripheral, TheWorldsEndCancelsWhatHangsAndLeavesObjectsSafe) {
    auto scope = std::make_unique<sim::WorldScope>(worldWith(
        R"("faults":[{"on":"write:CRRX","do":"hang"},{"on":"services:all","times":0,"do":"hang"}],
           "link":{"interval_us":60000000,"packets_per_interval":1})"));
    Host host;
    host.subscribeAll();
    const auto hung = host.start(CharacteristicKind::crrx, {40});
    EXPECT_EQ(host.write(CharacteristicKind::rx, {1}), kSuccess);
    const auto paced = host.start(CharacteristicKind::rx, {1});
    std::thread blocked([&] { EXPECT_TRUE(host.device->gattServices().empty()); });
    EXPECT_EQ(hung->status(), AsyncStatus::started);
    EXPECT_THROW(hung->getResults(), platform::PlatformError);
    EXPECT_EQ(scope->world().summary().at(0),
              "sim: TIO-SIM (00:1A:7D:DA:71:13): in 1 bytes, out 0 bytes, credits granted 32 used 1, "
              "host credits granted 0 used 0, violations 0");
    scope.reset();
    blocked.join();
    EXPECT_EQ(hung->status(), AsyncStatus::canceled);
    EXPECT_EQ(paced->status(), AsyncStatus::canceled);
    EXPECT_EQ(host.write(CharacteristicKind::rx, {1}), kUnreachable);
}

TEST(SimWorld, ServicesAppearAfterAFullListing) {
    const sim::WorldScope scope(worldWith(R"("appears_after_listing":true,"cached_services":[])"));
    const auto device = await(platform::bluetoothLEDeviceFromAddressAsync(kAddress));
    const auto lookUp = [&] {
        return await(device->getGattServicesForUuidAsync(sim::kTioService)).services->size();
    };
    EXPECT_TRUE(device->gattServices().empty());
    EXPECT_EQ(lookUp(), 0U);
    EXPECT_TRUE(await(device->getGattServicesAsync(platform::BluetoothCacheMode::cached)).services->empty());
    EXPECT_EQ(lookUp(), 1U);
    EXPECT_EQ(await(platform::bluetoothLEDeviceFromAddressAsync(1)), nullptr);
}

TEST(SimWorld, RadiosSwitchAfterTheirDelayUnlessTheyAreStuck) {
    const sim::WorldScope scope(
        R"({"time_scale":10,"radios":[{"switch_delay_ms":50},{"stuck":true},{"kind":"WiFi","switch_delay_ms":3600000}]})");
    const auto radios = await(platform::getRadiosAsync());
    const auto begin = std::chrono::steady_clock::now();
    for (const auto& radio : *radios) {
        EXPECT_EQ(await(radio->setStateAsync(platform::RadioState::off)),
                  platform::RadioAccessStatus::allowed);
    }
    EXPECT_TRUE(eventually([&] { return radios->at(0)->state() == platform::RadioState::off; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 5ms);
    EXPECT_EQ(radios->at(1)->state(), platform::RadioState::on);
    EXPECT_EQ(radios->at(2)->state(), platform::RadioState::on);
}

TEST(SimWorld, AdvertisementsAreHeardWhileBluetoothIsOn) {
    const sim::WorldScope scope(worldWith(R"("advertises":null,"name":"A,B")", R"(,"time_scale":1000)"));
    const auto watcher = platform::createAdvertisementWatcher();
    std::atomic<int> heard = 0;
    auto subscription = watcher->onReceived([&](const platform::AdvertisementReceivedEventArgs* args) {
        EXPECT_EQ(args->bluetoothAddress, kAddress);
        EXPECT_EQ(args->localName, L"A,B");
        EXPECT_FALSE(args->serviceUuids);
        ++heard;
    });
    const auto radio = await(platform::getRadiosAsync())->at(0);
    watcher->start();
    EXPECT_TRUE(eventually([&] { return heard > 2; }));
    radio->setStateAsync(platform::RadioState::off);
    EXPECT_TRUE(eventually([&] {
        const int before = heard;
        std::this_thread::sleep_for(10ms);
        return heard == before;
    }));
    radio->setStateAsync(platform::RadioState::on);
    const int before = heard;
    EXPECT_TRUE(eventually([&] { return heard > before; }));
    subscription.reset();
    const int last = heard;
    watcher->stop();
    EXPECT_EQ(heard, last);
}

TEST(SimWorld, PairingFollowsTheHandlersAnswer) {
    using Result = platform::DevicePairingResultStatus;
    const auto pair = [](platform::DeviceInformationPairing& pairing) {
        const auto level = platform::DevicePairingProtectionLevel::none;
        return await(pairing.custom()->pairAsync(platform::DevicePairingKinds::confirmOnly, level));
    };
    const sim::WorldScope scope(worldWith(R"("pairing":{"kind":8},"faults":[{"on":"pair","do":"null"}])"));
    const auto devices =
        await(platform::findAllDevicesAsync(platform::deviceSelectorFromBluetoothAddress(kAddress)));
    ASSERT_EQ(devices->size(), 1U);
    EXPECT_EQ(devices->at(0)->id(), L"BluetoothLE#Sim-00:1a:7d:da:71:13");
    EXPECT_TRUE(
        await(platform::findAllDevicesAsync(platform::deviceSelectorFromBluetoothAddress(1)))->empty());

    const auto pairing = devices->at(0)->pairing();
    EXPECT_EQ(pair(*pairing), std::nullopt);
    EXPECT_EQ(pair(*pairing), Result::requiredHandlerNotRegistered);
    const auto answer = [&](std::function<void(platform::DevicePairingRequestedEventArgs&)> handler) {
        const auto subscription = pairing->custom()->onPairingRequested(std::move(handler));
        return pair(*pairing);
    };
    EXPECT_EQ(answer([](auto&) {}), Result::rejectedByHandler);
    EXPECT_EQ(answer([](auto&) { throw std::runtime_error("no"); }), Result::failed);
    EXPECT_FALSE(pairing->isPaired());
    EXPECT_EQ(answer([](auto& args) {
                  EXPECT_EQ(args.pairingKind(), platform::DevicePairingKinds::confirmPinMatch);
                  args.accept();
              }),
              Result::paired);
    EXPECT_TRUE(pairing->isPaired());
}

}  // namespace
