// The link session: the address, unusual values from the peripheral, moving bytes, stopping.
#include <gtest/gtest.h>

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

TEST(Link, GoesThroughItsStepsInOrder) {
    test::LogCapture log;
    test::Link link("{}");
    test::SleepRecorder sleeps;
    link.connect();
    ASSERT_EQ(link.line(), "CONNECT TIO");
    EXPECT_TRUE(eventually([&] { return log.find("Starting communication loop..."); }));
    EXPECT_EQ(sleeps.sleeps(), (std::vector<long long>{500, 100, 250, 150, 250, 100}));
    // A second start leaves the running session alone.
    EXPECT_EQ(blescanner::lecommStart(nullptr, L"x"), 0);
    EXPECT_TRUE(log.find("LECOMM already started!"));
    link.stop();
    ASSERT_TRUE(link.ended());

    std::size_t from = 0;
    const auto texts = log.texts();
    for (const char* wanted : {"Device ADDR:  00:1a:7d:da:71:13",
                               "Service UUID: {0000FEFB-0000-1000-8000-00805F9B34FB}",
                               "TX Characteristic:{00000002-0000-1000-8000-008025000000}",
                               "Trigger a fake event...",
                               "Prepare scanner...",
                               "Got LE Device ",
                               "LE Connection status: 1",
                               "Got Service...",
                               "Got Service (2) ",
                               "Retrieve TX credits characteristic...",
                               "Retrieve RX MTU characteristic...",
                               "Setting subscriptions (TX MTU)...",
                               "INDICATIONset OK",
                               "Setting subscriptions (TX)...",
                               "NOTIFICATIONset OK",
                               "Setting credits (Credits RX)...",
                               "Starting transfer...",
                               "No I/O pipe (most likely disconnected)!",
                               "TX thread completed!",
                               "Redirect to comm pipe ended!",
                               "TIO internal context reset",
                               "commThread is DONE!"}) {
        while (from < texts.size() && texts[from] != wanted)
            ++from;
        EXPECT_LT(from, texts.size()) << wanted;
    }
}

TEST(Link, HandlesUnusualValuesFromThePeripheral) {
    test::LogCapture log;
    test::Link link(R"({"peripherals": [{"serial": "sink", "initial_credits": 0, "regrant_at": 0}]})");
    link.connect();
    ASSERT_EQ(link.line(), "CONNECT TIO");
    auto data = link.openData();
    auto& context = link.context();
    auto& peripheral = link.peripheral();
    ASSERT_TRUE(eventually([&] { return context.txMtu == 244; }));

    struct Credits {
        std::vector<std::uint8_t> value;
        int total;
    };
    for (const Credits& item :
         {Credits{{0}, 0}, Credits{{255}, 255}, Credits{{5, 1, 9}, 260}, Credits{{}, 260}}) {
        peripheral.sendNotification(sim::CharacteristicKind::crtx, item.value);
        peripheral.sendNotification(sim::CharacteristicKind::crtx, std::vector<std::uint8_t>{0});
        EXPECT_TRUE(eventually([&] { return context.remoteCredits == item.total; })) << item.total;
    }
    struct Mtu {
        std::vector<std::uint8_t> value;
        int mtu;
    };
    for (const Mtu& item : {Mtu{{0xF7, 0x00}, 247}, Mtu{{100}, 100}, Mtu{{0x00, 0x01, 0x07}, 256}}) {
        peripheral.sendNotification(sim::CharacteristicKind::txMtu, item.value);
        EXPECT_TRUE(eventually([&] { return context.txMtu == item.mtu; })) << item.mtu;
    }

    // An empty value and a missing one cost a credit each; a value longer than 1024 bytes is cut.
    EXPECT_EQ(context.localCredits, 40);
    peripheral.sendNotification(sim::CharacteristicKind::tx, std::vector<std::uint8_t>{});
    peripheral.sendNotification(sim::CharacteristicKind::tx, std::nullopt);
    peripheral.sendNotification(sim::CharacteristicKind::tx, std::vector<std::uint8_t>(1500, 'x'));
    EXPECT_EQ(data.readBytes(1024), std::string(1024, 'x'));
    EXPECT_TRUE(eventually([&] { return context.localCredits == 37 && context.rxBytes == 1024; }));
    EXPECT_TRUE(log.find("__chValueChanged (TX_UUID) with NULL data!"));

    // The thirtieth notification leaves ten credits, so that the program grants thirty new ones.
    for (int i = 0; i < 26; ++i)
        peripheral.sendNotification(sim::CharacteristicKind::tx, std::vector<std::uint8_t>{1});
    EXPECT_TRUE(eventually([&] { return context.localCredits == 11; }));
    peripheral.sendNotification(sim::CharacteristicKind::tx, std::vector<std::uint8_t>{1});
    EXPECT_TRUE(eventually([&] { return context.localCredits == 40; }));
    EXPECT_TRUE(log.find("Granting local credits 30 (40)"));
    EXPECT_EQ(data.readBytes(27).size(), 27U);
}

TEST(Link, WithoutCreditsNothingIsSentUntilTheLinkDrops) {
    test::LogCapture log;
    // Without MTUs no other write is under way when the link drops.
    test::Link link(R"({"peripherals": [{"serial": "sink", "initial_credits": 0, "regrant_at": 0,
                                         "characteristics": ["TX", "RX", "CRTX", "CRRX"]}]})");
    link.connect();
    ASSERT_EQ(link.line(), "CONNECT TIO");
    auto data = link.openData();
    data.send(std::string(100, 'x'));
    ASSERT_TRUE(eventually([&] { return log.find("SND=100"); }));
    EXPECT_EQ(link.context().txBytes, 0U);
    link.peripheral().dropLink();
    EXPECT_EQ(link.line(), "STATUS CLOSED");
    EXPECT_TRUE(eventually([&] { return log.find("Disconnect detected while waiting for remote credits"); }));
    EXPECT_TRUE(eventually([&] { return log.find("Link: 100 bytes of the client not sent"); }));
    EXPECT_NE(link.context().dataPipe.load(), nullptr);
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

TEST(LegacyLink, PairsAndSearchesTheListing) {
    struct Case {
        const char* peripheral;
        const char* logged;
        const char* line;
        bool flush = false;
    };
    const Case cases[] = {
        {R"("name": "plain")", "Device CONNECTED!", "CONNECT TIO"},
        {R"("pairing": {"paired": true})", "Device is already accessible!", "CONNECT TIO"},
        {R"("pairing": {"can_pair": false})", "Device seems not connectable!", "CONNECT TIO"},
        {R"("pairing": {"custom": false})", "No customized connection possible! Check and update Windows 10!",
         "CONNECT TIO"},
        {R"("pairing": {"kind": 4})", "Custom BLE connecting - ProvidePin", "CONNECT TIO"},
        {R"("pairing": {"kind": 16})", "Connection status is: The application handler rejected the pairing.",
         "CONNECT TIO"},
        {R"("pairing": {"result": 19})", "Connection status is: An unknown failure occurred.", "CONNECT TIO"},
        {R"("pairing": {"result": 20})", "Connection status is: ", "CONNECT TIO"},
        {R"("cached_services": [])", "Refreshig available GATT services (ALL)...", "CONNECT TIO"},
        {R"("cached_services": ["180F"])", "Found 1 GATT services.", "ERROR TIO"},
        {R"("cached_services": [], "uncached_services": [])", "Found 0 GATT services.", "ERROR TIO", true},
    };
    for (const Case& item : cases) {
        SCOPED_TRACE(item.peripheral);
        test::LogCapture log;
        test::Link link(R"({"os_version": [10, 0, 15062], "peripherals": [{)" + std::string(item.peripheral) +
                        "}]}");
        link.connect();
        EXPECT_EQ(link.line(), item.line);
        EXPECT_EQ(log.count(item.logged), 1);
        EXPECT_EQ(log.find("Flushing BLE stack..."), item.flush);
        EXPECT_EQ(log.find("Bluetooth reset initiated..."), item.flush);
    }
}

}  // namespace
