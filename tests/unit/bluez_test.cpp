// The BlueZ back end against a stand-in for bluetoothd on a bus of its own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "log_capture.h"
#include "platform/adapter.h"
#include "platform/advertisement.h"
#include "platform/bluetooth/bluez/error.h"
#include "platform/bluetooth/bluez/management.h"
#include "platform/bluetooth/bluez/radio.h"
#include "platform/gatt.h"
#include "platform/radio.h"
#include "platform/runtime.h"
#include "tests/eventually.h"
#include "tests/fake_bluetoothd/fake_bluez.h"

namespace {

using namespace std::chrono_literals;
using platform::AsyncStatus;
using platform::GattCommunicationStatus;
using platform::GattWriteOption;
using test::eventually;
using Descriptor = platform::GattClientCharacteristicConfigurationDescriptorValue;
using Bytes = std::vector<std::uint8_t>;

const auto kService = platform::bluetoothUuid(0xFEFB);

class Bluez : public testing::Test {
  protected:
    Bluez() { restart(); }
    ~Bluez() override {
        characteristics_.clear();
        service_.reset();
        device_.reset();
        runtime_.reset();
    }

    void restart() {
        bluetoothd_.reset();
        bluetoothd_ = std::make_unique<fake::Bluetoothd>(script_);
    }

    void script(std::string fake::Script::*field, const char* value) {
        const std::lock_guard lock(script_.mutex);
        script_.*field = value;
    }

    // Waits until the program has received all signals that were sent so far. Signals keep their order, so it
    // is enough to wait for the last one.
    void awaitSignals() {
        bluetoothd_->adapter().set("Alias", "settled " + std::to_string(++settled_));
        const auto known = [this] { return platform::getRadiosAsync()->getResults().value().at(0)->name(); };
        ASSERT_TRUE(eventually([&] { return known() == L"settled " + std::to_wstring(settled_); }));
    }

    static auto lookUp() { return platform::bluetoothLEDeviceFromAddressAsync(fake::kAddress); }

    void findDevice() {
        if (!script_.appears.exchange(true)) bluetoothd_->addDevice();
        ASSERT_TRUE(eventually([this] { return (device_ = lookUp()->getResults()) != nullptr; }));
    }

    void findService() {
        findDevice();
        const auto result = device_->getGattServicesForUuidAsync(kService)->getResults();
        ASSERT_EQ(result.status, GattCommunicationStatus::success);
        ASSERT_EQ(result.services->size(), 1U);
        service_ = result.services->front();
    }

    platform::GattCharacteristic& characteristic(std::uint16_t uuid) {
        auto& known = characteristics_[uuid];
        if (!known) {
            const auto found =
                service_->getCharacteristicsForUuidAsync(platform::bluetoothUuid(uuid))->getResults();
            known = found.characteristics.value().at(0);
        }
        return *known;
    }

    // Collects the values in received_ as long as the subscription lives.
    platform::Subscription collect(std::uint16_t uuid) {
        return characteristic(uuid).onValueChanged([this](auto* sender, const auto* args) {
            EXPECT_NE(sender, nullptr);
            const std::lock_guard lock(mutex_);
            received_.emplace_back(args->value.begin(), args->value.end());
        });
    }
    GattCommunicationStatus subscribe(std::uint16_t uuid, Descriptor value) {
        return characteristic(uuid)
            .writeClientCharacteristicConfigurationDescriptorAsync(value)
            ->getResults();
    }
    std::size_t receivedCount() {
        const std::lock_guard lock(mutex_);
        return received_.size();
    }
    auto write(const Bytes& value, GattWriteOption option = GattWriteOption::writeWithoutResponse) {
        return characteristic(1).writeValueAsync(value, option);
    }

    fake::Daemon daemon_;
    fake::Script script_;
    std::unique_ptr<fake::Bluetoothd> bluetoothd_;
    std::unique_ptr<platform::BluetoothRuntime> runtime_ = std::make_unique<platform::BluetoothRuntime>();
    std::shared_ptr<platform::BluetoothLEDevice> device_;
    std::shared_ptr<platform::GattDeviceService> service_;
    std::map<std::uint16_t, std::shared_ptr<platform::GattCharacteristic>> characteristics_;
    int settled_ = 0;
    std::mutex mutex_;
    std::vector<Bytes> received_;  // guarded by mutex_
};

TEST_F(Bluez, SwitchesRadiosAndNoticesTheirRemoval) {
    const auto radios = platform::getRadiosAsync()->getResults();
    ASSERT_EQ(radios.value().size(), 1U);
    const auto& radio = *radios->front();
    EXPECT_EQ(radio.name(), L"Pult \u00fc");
    EXPECT_EQ(radio.kind(), platform::RadioKind::bluetooth);
    EXPECT_EQ(radio.state(), platform::RadioState::on);
    radios->front()->setStateAsync(platform::RadioState::off);
    EXPECT_TRUE(eventually([&] { return !bluetoothd_->adapter().isTrue("Powered"); }));
    bluetoothd_->adapter().set("Powered", false);
    EXPECT_TRUE(eventually([&] { return radio.state() == platform::RadioState::off; }));
    EXPECT_EQ(lookUp()->getResults(), nullptr) << "without waiting for a search that cannot be";
    bluetoothd_.reset();
    EXPECT_TRUE(eventually([&] { return radio.state() == platform::RadioState::unknown; }));
    EXPECT_EQ(platform::getRadiosAsync()->getResults().value().size(), 0U);
    EXPECT_TRUE(eventually([] { return lookUp()->errorCode() == platform::kRoEClosed; }));
}

TEST_F(Bluez, SurvivesTheLossOfTheBusAndUsesANewOne) {
    EXPECT_EQ(platform::getRadiosAsync()->getResults().value().size(), 1U);
    bluetoothd_.reset();
    daemon_.kill();
    EXPECT_TRUE(eventually([] { return lookUp()->errorCode() == platform::kRoEClosed; }));
    EXPECT_EQ(platform::getRadiosAsync()->getResults().value().size(), 0U);
    const auto watcher = platform::createAdvertisementWatcher();
    watcher->start();
    const fake::Daemon another;
    restart();
    EXPECT_TRUE(eventually([] { return platform::getRadiosAsync()->getResults().value().size() == 1; }));
    bluetoothd_.reset();
}

TEST(BluezAdapter, ReadsRfkillSwitchesAndTheKernelsVersionReply) {
    const auto folder =
        std::filesystem::temp_directory_path() / ("ziqble-rfkill-" + std::to_string(::getpid()));
    std::filesystem::create_directories(folder / "hci0" / "rfkill7");
    const struct {
        const char* soft;
        const char* hard;
        bool blocked;
    } cases[] = {{"0\n", "0\n", false}, {"1\n", "0\n", true}, {"0\n", "1\n", true}};
    for (const auto& state : cases) {
        std::ofstream(folder / "hci0" / "rfkill7" / "soft") << state.soft;
        std::ofstream(folder / "hci0" / "rfkill7" / "hard") << state.hard;
        EXPECT_EQ(bluez::isBlocked(folder, "hci0"), state.blocked);
    }
    EXPECT_FALSE(bluez::isBlocked(folder, "hci1"));
    std::filesystem::remove_all(folder);

    Bytes reply(280, 0);
    reply[6] = 11;
    reply[20] = 'N';
    bluez::ControllerInfo info;
    EXPECT_TRUE(bluez::parseControllerInfo(reply, info));
    EXPECT_EQ(info.version, 11);
    EXPECT_EQ(info.name, "N");
    reply.resize(268);
    EXPECT_FALSE(bluez::parseControllerInfo(reply, info));
}

TEST_F(Bluez, HearsAdvertisements) {
    script_.appears = true;
    std::mutex mutex;
    std::vector<platform::AdvertisementReceivedEventArgs> heard;
    const auto count = [&] {
        const std::lock_guard lock(mutex);
        return heard.size();
    };
    const auto watcher = platform::createAdvertisementWatcher();
    auto received = watcher->onReceived([&](const auto* args) {
        const std::lock_guard lock(mutex);
        heard.push_back(*args);
    });
    watcher->start();
    ASSERT_TRUE(eventually([&] { return count() == 1; }));
    EXPECT_EQ(heard[0].bluetoothAddress, fake::kAddress);
    EXPECT_EQ(heard[0].serviceUuids, std::vector{kService});
    EXPECT_EQ(heard[0].localName, L"T\u00efO;\r\n\xD83D\xDD0C");
    bluetoothd_->device().set("UUIDs", std::vector<std::string>());
    bluetoothd_->device().set("RSSI", std::int16_t{-50});
    ASSERT_TRUE(eventually([&] { return count() == 2; }))
        << "told of another change than the signal's strength";
    EXPECT_FALSE(heard[1].serviceUuids);
    received.reset();
    bluetoothd_->device().set("RSSI", std::int16_t{-40});
    {
        // The look-up starts a search of its own while the watcher's runs.
        findDevice();
    }
    EXPECT_EQ(script_.searches, 1);
    watcher->stop();
    EXPECT_EQ(script_.searches, 0);
    EXPECT_EQ(count(), 2U);
}

TEST_F(Bluez, SearchesForADeviceUntilItAppearsOrTheProgramEnds) {
    {
        std::shared_ptr<platform::AsyncInfo> pending;
        std::atomic<bool> searching = false;
        std::thread look([&] { pending = lookUp(); });
        EXPECT_TRUE(eventually([this] { return script_.searches == 1; }));
        runtime_.reset();
        look.join();
        EXPECT_EQ(pending->status(), AsyncStatus::canceled);
    }
    runtime_ = std::make_unique<platform::BluetoothRuntime>();
    script_.searches = 0;  // bluetoothd ends the searches of a client that has left the bus
    script_.appears = true;
    EXPECT_NE(lookUp()->getResults(), nullptr);
    EXPECT_EQ(script_.searches, 0);
}

TEST_F(Bluez, ConnectsToFindServicesAndEndsItsOwnConnection) {
    script(&fake::Script::refusal, "le-connection-abort-by-local");
    findDevice();
    EXPECT_EQ(device_->getGattServicesForUuidAsync(kService)->getResults().status,
              GattCommunicationStatus::unreachable);
    EXPECT_EQ(
        device_->getGattServicesAsync(platform::BluetoothCacheMode::cached)->getResults().services->size(),
        0U);

    script(&fake::Script::refusal, "");
    script_.resolves = false;
    std::thread resolve([this] {
        EXPECT_TRUE(eventually([this] { return script_.connects == 4; }));
        bluetoothd_->device().set("ServicesResolved", true);
    });
    findService();
    resolve.join();
    EXPECT_EQ(device_->connectionStatus(), platform::BluetoothConnectionStatus::connected);
    EXPECT_TRUE(
        device_->getGattServicesForUuidAsync(platform::bluetoothUuid(1))->getResults().services->empty());
    EXPECT_EQ(device_->gattServices().size(), 1U);

    // The link stays as long as one object uses it.
    const auto other = lookUp()->getResults();
    service_.reset();
    device_.reset();
    EXPECT_EQ(other->connectionStatus(), platform::BluetoothConnectionStatus::connected);
    EXPECT_EQ(script_.disconnects, 0);
}

TEST_F(Bluez, DoesNotEndALinkThatWasThereBefore) {
    findService();
    service_.reset();
    device_.reset();
    EXPECT_TRUE(eventually([this] { return script_.disconnects == 1; }));
    awaitSignals();
    bluetoothd_->device().set("Connected", true);
    bluetoothd_->device().set("ServicesResolved", true);
    awaitSignals();
    findService();
    service_.reset();
    device_.reset();
    runtime_.reset();
    EXPECT_EQ(script_.connects, 1);
    EXPECT_EQ(script_.disconnects, 1);
}

// When another program is just connecting, this one waits for the link, and does not end it afterwards.
TEST_F(Bluez, WaitsForALinkThatAnotherProgramMakes) {
    script(&fake::Script::refusal, "Operation already in progress");
    findDevice();
    std::thread other([this] {
        EXPECT_TRUE(eventually([this] { return script_.connects == 1; }));
        bluetoothd_->connected(true);
    });
    findService();
    other.join();
    service_.reset();
    device_.reset();
    runtime_.reset();
    EXPECT_EQ(script_.disconnects, 0);
}

TEST_F(Bluez, SearchesAgainWhereBluetoothdHasEndedTheSearch) {
    const auto watcher = platform::createAdvertisementWatcher();
    watcher->start();
    EXPECT_EQ(script_.searches, 1);
    script_.searches = 0;  // as when the adapter is switched off
    script_.appears = true;
    EXPECT_NE(lookUp()->getResults(), nullptr);
    EXPECT_EQ(script_.searches, 1) << "the watcher's search goes on";
}

TEST_F(Bluez, LogsWhatIsMissing) {
    const test::LogCapture log;
    const auto says = [&](const std::string& text) { return eventually([&] { return log.find(text); }); };
    EXPECT_EQ(platform::getRadiosAsync()->getResults().value().size(), 1U);
    bluetoothd_->adapter().set("Powered", false);
    EXPECT_TRUE(says("adapter hci0 was switched off"));
    EXPECT_EQ(lookUp()->getResults(), nullptr);
    EXPECT_TRUE(says("no adapter that is switched on"));
    bluetoothd_->removeAdapter();
    EXPECT_TRUE(says("adapter hci0 is gone"));
    bluetoothd_.reset();
    EXPECT_TRUE(says("bluetoothd has ended"));
    platform::getRadiosAsync();
    EXPECT_TRUE(says("bluetoothd does not run"));
    daemon_.kill();
    EXPECT_TRUE(says("the system bus cannot be reached"));
}

TEST(BluezError, DistinguishesFailuresOfTheLinkFromOthers) {
    const struct {
        const char* name;
        const char* message;
        platform::HResult code;
    } cases[] = {
        {"org.bluez.Error.Failed", "le-connection-abort-by-local", bluez::kNotConnected},
        {"org.bluez.Error.Failed", "br-connection-canceled", bluez::kNotConnected},
        {"org.bluez.Error.Failed", "Not connected", bluez::kNotConnected},
        {"org.bluez.Error.Failed", "Operation already in progress", bluez::kInProgress},
        {"org.bluez.Error.Failed", "Operation failed with ATT error: 0x81", platform::kEFail},
        {"org.freedesktop.DBus.Error.Spawn.ExecFailed", "", platform::kRoEClosed},
        {"org.freedesktop.DBus.Error.NoReply", "", bluez::kTimeout},
    };
    for (const auto& [name, message, code] : cases)
        EXPECT_EQ(bluez::translate(sdbus::Error(name, message)).code(), code) << name << ' ' << message;

    const test::LogCapture log;
    EXPECT_EQ(bluez::translate(sdbus::Error("org.freedesktop.DBus.Error.AccessDenied", "")).code(),
              bluez::kAccessDenied);
    EXPECT_TRUE(log.find("this user may not talk to bluetoothd"));
}

TEST_F(Bluez, NotifiesInOrderThroughTheDescriptor) {
    findService();
    auto subscription = collect(2);
    ASSERT_EQ(subscribe(2, Descriptor::notify), GattCommunicationStatus::success);
    constexpr std::size_t kPackets = 500;
    for (std::size_t i = 0; i < kPackets; ++i) {
        const Bytes packet{static_cast<std::uint8_t>(i), static_cast<std::uint8_t>(i >> 8)};
        ASSERT_EQ(::send(script_.notifySocket, packet.data(), packet.size(), MSG_NOSIGNAL), 2);
        if (i == 0) {
            ASSERT_EQ(::send(script_.notifySocket, packet.data(), 0, MSG_NOSIGNAL), 0);
        }
    }
    ASSERT_TRUE(eventually([&] { return receivedCount() == kPackets + 1; }));
    EXPECT_EQ(received_[1], Bytes()) << "a value like any other, and not the end";
    received_.erase(received_.begin() + 1);
    for (std::size_t i = 0; i < kPackets; ++i)
        EXPECT_EQ(received_[i][0] + 256U * received_[i][1], i);
    EXPECT_EQ(script_.calls, 1) << "one call, however many packets";
    subscription.reset();
    const std::uint8_t late = 1;
    ASSERT_EQ(::send(script_.notifySocket, &late, 1, MSG_NOSIGNAL), 1);
    EXPECT_EQ(subscribe(2, Descriptor::none), GattCommunicationStatus::success);
    EXPECT_EQ(receivedCount(), kPackets);
    EXPECT_EQ(::send(script_.notifySocket, &late, 1, MSG_NOSIGNAL), -1) << "given back";
}

// Without a descriptor: bluetoothd does not offer it, or another program has it.
TEST_F(Bluez, NotifiesInOrderThroughSignals) {
    findService();
    const struct {
        std::uint16_t uuid;
        const char* error;
    } cases[] = {{2, "org.bluez.Error.NotPermitted"}, {2, "org.freedesktop.DBus.Error.NoReply"}, {4, ""}};
    for (const auto& [uuid, error] : cases) {
        script(&fake::Script::notifyError, error);
        received_.clear();
        const auto subscription = collect(uuid);
        ASSERT_EQ(subscribe(uuid, Descriptor::indicate), GattCommunicationStatus::success);
        for (std::uint8_t i = 0; i < 100; ++i)
            bluetoothd_->characteristic(uuid == 2 ? "0002" : "0004").set("Value", Bytes{i});
        ASSERT_TRUE(eventually([&] { return receivedCount() == 100; }));
        for (std::uint8_t i = 0; i < 100; ++i)
            EXPECT_EQ(received_[i], Bytes{i});
    }
    EXPECT_EQ(script_.calls, 5 + 1) << "two for each way tried twice; one for a source that was replaced";
}

TEST_F(Bluez, WritesInOrderAndWaitsForTheLink) {
    findService();
    constexpr std::size_t kPackets = 500;
    std::atomic<std::size_t> written = 0;
    std::thread writer([&] {
        for (std::size_t i = 0; i < kPackets; ++i, ++written) {
            const Bytes packet{static_cast<std::uint8_t>(i), static_cast<std::uint8_t>(i >> 8)};
            ASSERT_EQ(write(packet)->getResults(), GattCommunicationStatus::success);
        }
    });
    std::size_t held = 0;
    EXPECT_TRUE(eventually([&] {
        const std::size_t before = std::exchange(held, written);
        std::this_thread::sleep_for(50ms);
        return before > 0 && before == written;
    }));
    EXPECT_LT(held, kPackets);
    for (std::size_t i = 0; i < kPackets; ++i) {
        Bytes packet(10);
        ASSERT_EQ(::recv(script_.writeSocket, packet.data(), packet.size(), 0), 2);
        EXPECT_EQ(packet[0] + 256U * packet[1], i);
    }
    writer.join();
    EXPECT_EQ(script_.calls, 1) << "one call, however many packets";
}

TEST_F(Bluez, WritesWithCallsWhenTheDescriptorCannotBeUsed) {
    findService();
    for (const std::size_t size : {97, 98, 3, 98}) {
        EXPECT_EQ(write(Bytes(size))->getResults(), GattCommunicationStatus::success);
    }
    EXPECT_EQ(write(Bytes(1), GattWriteOption::writeWithResponse)->getResults(),
              GattCommunicationStatus::success);
    const std::vector<std::string> expected{"0001::98", "0001:command:3", "0001::98", "0001:request:1"};
    EXPECT_EQ(script_.writes, expected);
    Bytes packet(100);
    EXPECT_EQ(::recv(script_.writeSocket, packet.data(), packet.size(), 0), 97);
    EXPECT_EQ(::recv(script_.writeSocket, packet.data(), packet.size(), 0), 0) << "given back";
}

TEST_F(Bluez, ReportsALostLink) {
    findService();
    std::atomic<int> closed = 0;
    const auto session = service_->session();
    const auto watch = session->onSessionStatusChanged([&](platform::GattSessionStatus status) {
        if (status == platform::GattSessionStatus::closed) ++closed;
    });
    ASSERT_EQ(write(Bytes(1))->getResults(), GattCommunicationStatus::success);
    EXPECT_EQ(characteristic(2).uuid(), platform::bluetoothUuid(2));
    bluetoothd_->drop();
    EXPECT_EQ(write(Bytes(1))->getResults(), GattCommunicationStatus::unreachable);
    EXPECT_TRUE(eventually([&] { return closed == 1; }));
    EXPECT_EQ(device_->connectionStatus(), platform::BluetoothConnectionStatus::disconnected);
    for (const auto option : {GattWriteOption::writeWithResponse, GattWriteOption::writeWithoutResponse})
        EXPECT_EQ(write(Bytes(1), option)->getResults(), GattCommunicationStatus::unreachable);
    EXPECT_EQ(subscribe(2, Descriptor::notify), GattCommunicationStatus::unreachable);
    EXPECT_EQ(service_->getCharacteristicsForUuidAsync(kService)->getResults().status,
              GattCommunicationStatus::unreachable);
    bluetoothd_->forget();
    EXPECT_TRUE(eventually([&] { return write(Bytes(1))->errorCode() == platform::kRoEClosed; }));
    EXPECT_EQ(closed, 1);
}

TEST_F(Bluez, WorksAgainAfterARestartOfBluetoothd) {
    findService();
    std::atomic<int> closed = 0;
    const auto session = service_->session();
    const auto watch = session->onSessionStatusChanged([&](platform::GattSessionStatus) { ++closed; });
    ASSERT_EQ(write(Bytes(1))->getResults(), GattCommunicationStatus::success);
    const auto old = characteristics_.at(1);
    restart();
    EXPECT_TRUE(eventually([&] { return closed == 1; }));
    EXPECT_TRUE(eventually([&] {
        return old->writeValueAsync(Bytes(1), GattWriteOption::writeWithResponse)->errorCode() ==
               platform::kRoEClosed;
    }));
    characteristics_.clear();
    findService();
    EXPECT_EQ(write(Bytes(1))->getResults(), GattCommunicationStatus::success);
    EXPECT_EQ(old->writeValueAsync(Bytes(1), GattWriteOption::writeWithResponse)->errorCode(),
              platform::kRoEClosed)
        << "this object is gone, although a new one has the same path";
}

}  // namespace
