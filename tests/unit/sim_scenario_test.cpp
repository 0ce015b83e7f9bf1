// Scenario files: what is taken over, and how bad ones are refused.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/bluetooth/sim/scenario.h"
#include "platform/runtime.h"

namespace {

using sim::parseScenario;

std::string refusal(const std::string& json) {
    try {
        parseScenario(json);
    } catch (const platform::BluetoothConfigError& error) {
        return error.what();
    }
    return "accepted";
}

std::string peripheralWith(const std::string& fields) {
    return R"({"peripherals":[{)" + fields + "}]}";
}

TEST(SimScenario, BadScenariosNameTheKeyAndWhatStoodThere) {
    struct Case {
        std::string json, key, found;
    };
    const Case cases[] = {
        {"", "line 1, column 1", "JSON"},
        {"{\n \"radios\": [}", "line 2", "column"},
        {"[]", "scenario", "a list of 0"},
        {R"({"radois":[]})", "radois", "unknown key"},
        {R"({"time_scale":0.5})", "time_scale", "0.5"},
        {R"({"time_scale":"fast"})", "time_scale", "\"fast\""},
        {R"({"os_version":[10,0]})", "os_version", "a list of 2"},
        {R"({"os_version":[10,0,-1]})", "os_version[2]", "-1"},
        {R"({"drivers_db":""})", "drivers_db", "\"\""},
        {R"({"radios":{}})", "radios", "an object"},
        {R"({"radios":[{},{"kind":"LTE"}]})", "radios[1].kind", "\"LTE\""},
        {R"({"radios":[{"state":1}]})", "radios[0].state", "1"},
        {R"({"radios":[{"stuck":"yes"}]})", "radios[0].stuck", "\"yes\""},
        {R"({"adapters":null})", "adapters", "null"},
        {R"({"adapters":[{"lmp":256}]})", "adapters[0].lmp", "256"},
        {R"({"adapters":[{"version_error":18446744073709551615}]})", "adapters[0].version_error",
         "18446744073709551615"},
        {R"({"adapters":[{"scan_command_errors":[0,0]}]})", "adapters[0].scan_command_errors", "a list of 2"},
        {R"({"adapters":[{"scan_command_errors":[0,0,1.5]}]})", "adapters[0].scan_command_errors[2]", "1.5"},
        {R"({"drivers":[{"compatible":[{"date":"2016-02-30T00:00:00Z"}]}]})", "drivers[0].compatible[0].date",
         "02-30"},
        {R"({"drivers":[{"compatible":[{"date":"2016-05-01"}]}]})", "drivers[0].compatible[0].date", "2016"},
        {R"({"drivers":[{"compatible":[{"version":"10.0.65536.1"}]}]})", "compatible[0].version", "65536"},
        {R"({"drivers":[{"compatible":[{"version":"1.2.3"}]}]})", "compatible[0].version", "1.2.3"},
        {peripheralWith(R"("address":"00:1A:7D:DA:71")"), "peripherals[0].address", "00:1A"},
        {peripheralWith(R"("address":"0:1A:7D:DA:71:13")"), "peripherals[0].address", "0:1A"},
        {peripheralWith(R"("address":"00:1A:7D:DA:71:1G")"), "peripherals[0].address", "1G"},
        {R"({"peripherals":[{},{}]})", "peripherals[1].address", "00:1A:7D:DA:71:13"},
        {peripheralWith(R"("name":7)"), "peripherals[0].name", "7"},
        {peripheralWith(R"("advertises":["FEF"])"), "peripherals[0].advertises[0]", "FEF"},
        {peripheralWith(R"("cached_services":[65275])"), "peripherals[0].cached_services[0]", "65275"},
        {peripheralWith(R"("characteristics":["XX"])"), "peripherals[0].characteristics[0]", "XX"},
        {peripheralWith(R"("tx_mtu":513)"), "peripherals[0].tx_mtu", "513"},
        {peripheralWith(R"("serial":"source:")"), "peripherals[0].serial", "source:"},
        {peripheralWith(R"("link":{"interval_us":-1})"), "peripherals[0].link.interval_us", "-1"},
        {peripheralWith(R"("link":{"interval_us":7500})"), "peripherals[0].link", "an object"},
        {peripheralWith(R"("pairing":{"result":-1})"), "peripherals[0].pairing.result", "-1"},
        {peripheralWith(R"("faults":[{"do":"hang"}])"), "peripherals[0].faults[0]", "an object"},
        {peripheralWith(R"("faults":[{"on":"write","do":"hang"}])"), "peripherals[0].faults[0].on", "write"},
        {peripheralWith(R"("faults":[{"on":"pair","do":"error"}])"), "peripherals[0].faults[0].do", "error"},
        {peripheralWith(R"("faults":[{"on":"pair","do":"throw:0x123456789"}])"), "faults[0].do", "throw"},
        {peripheralWith(R"("faults":[{"do":"cancel","on":"notify:TX"}])"), "faults[0].do", "cancel"},
    };
    for (const auto& item : cases) {
        const auto message = refusal(item.json);
        EXPECT_NE(message.find(item.key), std::string::npos) << item.json << "\n" << message;
        EXPECT_NE(message.find(item.found), std::string::npos) << item.json << "\n" << message;
    }
}

TEST(SimScenario, DeepNestingIsRefusedAndDoesNotOverflow) {
    const std::string deep = R"({"radios":[)" + std::string(200'000, '[') + std::string(200'000, ']') + "]}";
    EXPECT_NE(refusal(deep).find("radios[0]: expected an object, found a list of 1"), std::string::npos);
}

TEST(SimScenario, GivenKeysReplaceDefaultsAndAbsentOnesKeepThem) {
    const auto empty = parseScenario("{}");
    ASSERT_TRUE(empty.radios);
    EXPECT_EQ(empty.radios->size(), 1U);
    EXPECT_EQ(empty.adapters.size(), 1U);
    EXPECT_TRUE(empty.drivers.empty());
    ASSERT_EQ(empty.peripherals.size(), 1U);

    const auto given = parseScenario(R"({
        // comments are welcome
        "os_version": [10, 0, 14393], "time_scale": 2.5, "radios": null, "adapters": [], "drivers_db": "x/drivers.db",
        "drivers": [{"compatible": [{"date": "2016-05-01T01:02:03Z", "version": "10.0.19041.1"}]}],
        "peripherals": [{"address": "ff:00:00:00:00:01", "name": "\u0000,;\uD83D\uDE00", "advertises": null,
            "services": ["FFE9"], "uncached_services": [], "characteristics": ["RX"], "serial": "source:0",
            "faults": [{"on": "subscribe:CRTX", "do": "error:0x80000013", "after": 3, "times": 0}]}]
    })",
                                     "base");
    EXPECT_EQ(given.osVersion.build, 14393U);
    EXPECT_EQ(given.timeScale, 2.5);
    EXPECT_FALSE(given.radios);
    EXPECT_TRUE(given.adapters.empty());
    EXPECT_EQ(given.driversDb, std::filesystem::path("base") / "x/drivers.db");
    const auto& driver = given.drivers.at(0).compatible.at(0);
    EXPECT_EQ(driver.date.ticks, 131065381230000000U);
    EXPECT_EQ(driver.version, 0x000A'0000'4A61'0001U);

    const auto& peripheral = given.peripherals.at(0);
    EXPECT_EQ(peripheral.address, 0xFF00'0000'0001U);
    EXPECT_EQ(peripheral.name.size(), 5U) << "a NUL, two signs and a surrogate pair";
    EXPECT_FALSE(peripheral.advertises);
    EXPECT_EQ(peripheral.services, peripheral.cachedServices);
    EXPECT_EQ(peripheral.cachedServices.at(0).data1, 0xFFE9U);
    EXPECT_TRUE(peripheral.uncachedServices.empty());
    EXPECT_EQ(peripheral.characteristics, (std::array<bool, 6>{false, true, false, false, false, false}));
    EXPECT_EQ(peripheral.serial, sim::SerialBehaviour::source);
    EXPECT_EQ(peripheral.txMtu, 244U);
    const auto& rule = peripheral.faults.at(0);
    EXPECT_EQ(rule.point, (sim::FaultPoint{sim::FaultPoint::Call::subscribe, sim::CharacteristicKind::crtx}));
    EXPECT_EQ(rule.fault.code, platform::kRoEClosed);
    EXPECT_EQ(rule.after, 3U);
    EXPECT_EQ(rule.times, 0U);
}

TEST(SimScenario, FilesAreReadWithTheirFolderAndNamedInErrors) {
    const auto folder = std::filesystem::path(testing::TempDir()) / "sim_scenario_test";
    std::filesystem::create_directories(folder);
    const auto file = folder / "world.json";
    std::ofstream(file) << R"({"drivers_db": "drivers.db"})";
    EXPECT_EQ(sim::readScenario(file).driversDb, folder / "drivers.db");

    std::ofstream(file) << R"({"bad": 1})";
    for (const auto& unusable : {file, folder, folder / "missing.json"}) {
        try {
            sim::readScenario(unusable);
            FAIL() << unusable;
        } catch (const platform::BluetoothConfigError& error) {
            EXPECT_EQ(std::string(error.what()).find(unusable.string()), 0U) << error.what();
        }
    }
    std::filesystem::remove_all(folder);
}

}  // namespace
