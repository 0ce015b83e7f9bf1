// The link session: the address, unusual values from the peripheral, moving bytes, stopping.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/eventually.h"
#include "tests/unit/link_fixture.h"
#include "tests/unit/sleep_recorder.h"

namespace {

using namespace std::chrono_literals;
using blescanner::parseBleAddress;
using test::eventually;

TEST(BleAddress, AcceptsTheScanFormatAndNothingElse) {
    EXPECT_EQ(parseBleAddress(L"00:1A:7d:DA:71:13"), 0x001A7DDA7113U);
    EXPECT_EQ(parseBleAddress(L" ff:ff:ff:ff:ff:ff"), 0xFFFFFFFFFFFFU);
    EXPECT_EQ(parseBleAddress(L"1:2:3:4:5:6"), 0x010203040506U);
    for (const std::wstring text : {L"", L"00:1A:7D:DA:71", L"00:1A:7D:DA:71:13 ", L"00:1A:7D:DA:71:13:14",
                                    L"00-1A-7D-DA-71-13", L"zz:1A:7D:DA:71:13"}) {
        try {
            parseBleAddress(text);
            FAIL() << platform::toUtf8(text);
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(error.what(), "invalid BLE address format " + platform::toUtf8(text));
        }
    }
    EXPECT_THROW(parseBleAddress(std::wstring(L"0:1:2:3:4:5\0", 12)), std::runtime_error);
}

using Bytes = std::vector<std::uint8_t>;

constexpr const char* kNoGrants =
    R"({"peripherals": [{"serial": "sink", "initial_credits": 0, "regrant_at": 0, "tx_mtu": 100}]})";

// How often the peripheral was asked this.
std::ptrdiff_t asked(test::Link& link, const std::string& request) {
    const auto requests = link.peripheral().hostRequests();
    return std::count(requests.begin(), requests.end(), request);
}

void waitForRequests(test::Link& link, const std::string& request, std::ptrdiff_t count) {
    EXPECT_TRUE(eventually([&] { return asked(link, request) == count; }))
        << asked(link, request) << " times " << request << " instead of " << count;
}

TEST(Link, WritesFullPacketsOneForEachCredit) {
    test::Link link(kNoGrants);
    link.connect();
    ASSERT_EQ(link.line(), "CONNECT TIO");
    waitForRequests(link, "write RXMTU 100 with response", 1);
    auto data = link.openData();
    data.send(std::string(2010, 'x'));
    auto& peripheral = link.peripheral();
    // What follows the first byte of a grant has no meaning. Neither has an empty one.
    for (const Bytes& grant : {Bytes{0}, Bytes{3}, Bytes{2, 1, 9}, Bytes{}})
        peripheral.sendNotification(sim::CharacteristicKind::crtx, grant);
    waitForRequests(link, "write RX 100 bytes without response", 5);

    // One byte alone is the low one, and a third one has no meaning.
    const std::pair<Bytes, int> mtus[] = {
        {{50}, 50}, {{0x00, 0x02, 0x07}, 512}, {{}, 512}, {{0x04, 0x01}, 260}};
    int size = 0;
    for (const auto& [value, mtu] : mtus) {
        peripheral.sendNotification(sim::CharacteristicKind::txMtu, value);
        if (!value.empty()) waitForRequests(link, "write RXMTU " + std::to_string(mtu) + " with response", 1);
        peripheral.sendNotification(sim::CharacteristicKind::crtx, Bytes{1});
        waitForRequests(link, "write RX " + std::to_string(mtu) + " bytes without response",
                        size == mtu ? 2 : 1);
        size = mtu;
    }
    peripheral.sendNotification(sim::CharacteristicKind::crtx, Bytes{255});
    waitForRequests(link, "write RX 176 bytes without response", 1);
    EXPECT_EQ(peripheral.counters().bytesIn, 2010U);
    EXPECT_EQ(peripheral.counters().violations, 0U);
    EXPECT_EQ(link.context().txBytes, 2010U);
    // A peripheral without an MTU gets one byte at a time.
    peripheral.sendNotification(sim::CharacteristicKind::txMtu, Bytes{0, 0});
    waitForRequests(link, "write RXMTU 0 with response", 1);
    data.send("ab");
    waitForRequests(link, "write RX 1 bytes without response", 2);
}

TEST(Link, GrantsThirtyCreditsWheneverTenAreLeft) {
    test::LogCapture log;
    test::Link link(R"({"peripherals": [{"serial": "sink",
        "faults": [{"on": "write:CRRX", "after": 2, "do": "protocol-error"},
                   {"on": "write:CRRX", "after": 2, "do": "throw:0xA7654321"}]}]})");
    link.connect();
    ASSERT_EQ(link.line(), "CONNECT TIO");
    auto data = link.openData();
    // What comes before the program has taken the client is lost.
    data.send("x");
    waitForRequests(link, "write RX 1 bytes without response", 1);
    auto& peripheral = link.peripheral();
    const auto send = [&](int count) {
        for (int i = 0; i < count; ++i)
            peripheral.sendNotification(sim::CharacteristicKind::tx, Bytes{'y'});
        EXPECT_EQ(data.readBytes(static_cast<std::size_t>(count)),
                  std::string(static_cast<std::size_t>(count), 'y'));
    };
    // An empty value and a missing one cost a credit each; a value longer than 1024 bytes is cut.
    peripheral.sendNotification(sim::CharacteristicKind::tx, Bytes{});
    peripheral.sendNotification(sim::CharacteristicKind::tx, std::nullopt);
    peripheral.sendNotification(sim::CharacteristicKind::tx, Bytes(1024, 'x'));
    peripheral.sendNotification(sim::CharacteristicKind::tx, Bytes(1500, 'z'));
    EXPECT_EQ(data.readBytes(2048), std::string(1024, 'x') + std::string(1024, 'z'));
    EXPECT_TRUE(eventually([&] { return log.find("Data pipe: 476 bytes for the client given up"); }));
    send(25);
    EXPECT_EQ(asked(link, "write CRRX 30 with response"), 0);
    send(1);
    waitForRequests(link, "write CRRX 30 with response", 1);
    EXPECT_EQ(link.context().rxBytes, 2048U + 26);
    send(29);
    EXPECT_EQ(asked(link, "write CRRX 30 with response"), 1);

    // Grants that do not reach the peripheral: it may fall silent, and the log says so.
    send(1 + 30);
    const std::vector<std::string> troubles = {
        "ERROR: __chValueChanged (TX_UUID) with NULL data!",
        "WARNING: Data pipe: 476 bytes for the client given up",
        "ERROR: Error setting credits!",
        "WARNING: The peripheral did not get 30 credits, status 2 (protocol error)",
        "ERROR: LE Connection is 1",
        "WARNING: The peripheral did not get 30 credits and may fall silent",
        "ERROR: Unknown exception in __chValueChanged",
        "ERROR: HRESULT 0xA7654321 HRESULT: -1486535903"};
    EXPECT_TRUE(eventually([&] { return log.troubles() == troubles; }))
        << ::testing::PrintToString(log.troubles());
    EXPECT_EQ(asked(link, "write CRRX 40 with response"), 1);
}

TEST(Link, RefusesAnAddressThatIsNone) {
    test::LogCapture log;
    test::Link link("{}");
    link.connect(L" 00:1a:7d\n");
    EXPECT_EQ(link.line(), "ERROR TIO");
    EXPECT_TRUE(link.ended());
    EXPECT_EQ(log.troubles(), std::vector<std::string>{"ERROR: invalid BLE address format  00:1a:7d\\x0a"});
    EXPECT_EQ(link.peripheral().hostCalls(), 0U);
}

TEST(Link, TellsOfNotificationsWithoutValues) {
    test::LogCapture log;
    test::Link link("{}");
    link.connect();
    ASSERT_EQ(link.line(), "CONNECT TIO");
    for (const auto kind : {sim::CharacteristicKind::crtx, sim::CharacteristicKind::txMtu})
        link.peripheral().sendNotification(kind, std::nullopt);
    EXPECT_TRUE(eventually([&] {
        return log.find("__chValueChanged (CRTX_UUID) with NULL data!") &&
               log.find("__chValueChanged (TXMTU_UUID) with NULL data!");
    }));
    // A second start leaves the running session alone.
    EXPECT_EQ(blescanner::lecommStart(nullptr, L"x"), 0);
    auto data = link.openData();
    data.send("still here");
    EXPECT_EQ(data.readBytes(10), "still here");
    EXPECT_EQ(link.world().scans.all(), std::vector{platform::ScanningMode::passive});
}

TEST(Link, WithoutCreditsNothingIsSentUntilTheLinkDrops) {
    test::LogCapture log;
    // Without MTUs no other write is under way when the link drops.
    test::Link link(R"({"peripherals": [{"serial": "sink", "initial_credits": 0, "regrant_at": 0,
                                         "characteristics": ["TX", "RX", "CRTX", "CRRX"]}]})");
    link.connect();
    ASSERT_EQ(link.line(), "CONNECT TIO");
    std::atomic<int> waits = 0, waitsUntold = 0;
    platform::setSleepObserver([&](std::chrono::milliseconds duration) {
        waits += duration == 20ms;
        if (!log.find("Link: the peripheral grants no credits")) waitsUntold = waits.load();
    });
    auto data = link.openData();
    data.send(std::string(100, 'x'));
    ASSERT_TRUE(eventually([&] { return waits > 60; }));
    EXPECT_EQ(waitsUntold, 49) << "a second without credits";
    EXPECT_EQ(link.peripheral().counters().packetsIn, 0U);
    link.peripheral().dropLink();
    EXPECT_EQ(link.line(), "STATUS CLOSED");
    EXPECT_TRUE(eventually([&] { return log.find("Disconnect detected while waiting for remote credits"); }));
    EXPECT_TRUE(eventually([&] { return log.find("Link: 100 bytes of the client not sent"); }));
    EXPECT_NE(link.context().dataPipe.load(), nullptr);
    platform::setSleepObserver({});
}

TEST(Link, AClientThatOpensTheDataPipeTooEarlyHasToOpenItAgain) {
    test::LogCapture log;
    test::Link link("{}");
    link.connect();
    auto early = link.openData();  // the session is still being set up
    ASSERT_EQ(link.line(), "CONNECT TIO");
    EXPECT_TRUE(early.waitForClose());
    EXPECT_TRUE(log.find("ERROR_PIPE_CONNECTED, trying disconnect first!"));
    auto data = link.openData();
    data.send("here");
    EXPECT_EQ(data.readBytes(4), "here");
    // When the client leaves, the pump ends, and the session waits until it is stopped.
    data.close();
    EXPECT_TRUE(eventually([&] { return log.find("Data pipe broken (disconnected)!"); }));
    EXPECT_TRUE(eventually([&] { return log.find("Expecting disconnect..."); }));
}

}  // namespace
