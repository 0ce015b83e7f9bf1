// Reading scenario files, and refusing bad ones.
#include <gtest/gtest.h>

#include <fstream>

#include "platform/bluetooth/sim/scenario.h"
#include "platform/runtime.h"
#include "tests/e2e/harness.h"

namespace {

using sim::parseScenario;

template <class Call>
std::string refusal(Call call) {
    try {
        call();
    } catch (const platform::BluetoothConfigError& error) {
        return error.what();
    }
    return "accepted";
}

// A text that begins with a quotation mark is a key of the only peripheral; any other is a whole scenario.
TEST(SimScenario, ErrorsNameTheKeyAndTheValue) {
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"", "line 1, column 1", "JSON"},
        {"{\n \"radios\": [}", "line 2", "column"},
        {"[]", "scenario", "a list of 0"},
        {R"({"radois":[]})", "radois", "unknown key"},
        {R"({"time_scale":0.5})", "time_scale", "0.5"},
        {R"({"os_version":[10,0,-1]})", "os_version[2]", "-1"},
        {R"({"radios":[{},{"kind":"LTE"}]})", "radios[1].kind", "\"LTE\""},
        {R"({"adapters":[{"version_error":18446744073709551615}]})", "adapters[0].version_error", "18446744"},
        {R"({"adapters":[{"scan_command_errors":[0,0,1.5]}]})", "adapters[0].scan_command_errors[2]", "1.5"},
        {R"({"drivers":[{"compatible":[{"date":"2016-02-30T00:00:00Z"}]}]})", "compatible[0].date", "02-30"},
        {R"({"peripherals":[{},{}]})", "peripherals[1].address", "00:1A:7D:DA:71:13"},
        {R"("address":"0:1A:7D:DA:71:13")", "address", "0:1A"},
        {R"("advertises":["FEF"])", "advertises[0]", "FEF"},
        {R"("characteristics":["XX"])", "characteristics[0]", "XX"},
        {R"("serial":"source:")", "serial", "source:"},
        {R"("link":{"interval_us":7500})", "link", "an object"},
        {R"("faults":[{"on":"write","do":"hang"}])", "faults[0].on", "write"},
        {R"("faults":[{"on":"pair","do":"throw:0x123456789"}])", "faults[0].do", "throw"},
        {R"("faults":[{"do":"cancel","on":"notify:TX"}])", "faults[0].do", "cancel"},
        {R"("faults":[{"do":"null","on":"session"}])", "faults[0].do",
         "error:0xHRESULT, throw:0xHRESULT, disconnect, hang, found \"null\""},
        {R"("faults":[{"do":"cancel","on":"notify:TX"}])", "faults[0].do",
         "null, no-operation, disconnect, hang, found \"cancel\""},
        {R"({"radios":[)" + std::string(200'000, '[') + std::string(200'000, ']') + "]}", "radios[0]",
         "expected an object, found a list of 1"},
    };
    for (const auto& [text, key, found] : cases) {
        const bool ofPeripheral = text.starts_with('"');
        const auto json = ofPeripheral ? R"({"peripherals":[{)" + text + "}]}" : text;
        const auto message = refusal([&] { parseScenario(json); });
        EXPECT_NE(message.find(ofPeripheral ? "peripherals[0]." + key : key), std::string::npos) << message;
        EXPECT_NE(message.find(found), std::string::npos) << message;
    }
}

TEST(SimScenario, GivenKeysReplaceDefaults) {
    const auto given = parseScenario(R"({
        // comments are welcome
        "radios": null, "drivers_db": "x/drivers.db",
        "drivers": [{"compatible": [{"date": "2016-05-01T01:02:03Z", "version": "10.0.19041.1"}]}],
        "peripherals": [{"address": "ff:00:00:00:00:01", "name": "\u0000,;\uD83D\uDE00", "services": ["FFE9"],
            "characteristics": ["RX"],
            "faults": [{"on": "subscribe:CRTX", "do": "error:0x80000013", "after": 3, "times": 0}]}]
    })",
                                     "base");
    EXPECT_FALSE(given.radios);
    EXPECT_EQ(given.driversDb, std::filesystem::path("base") / "x/drivers.db");
    EXPECT_EQ(given.drivers.at(0).compatible.at(0).date.ticks, 131065381230000000U);
    EXPECT_EQ(given.drivers.at(0).compatible.at(0).version, 0x000A'0000'4A61'0001U);
    const auto& peripheral = given.peripherals.at(0);
    EXPECT_EQ(peripheral.address, 0xFF00'0000'0001U);
    EXPECT_EQ(peripheral.name.size(), 5U) << "a NUL, two signs and a surrogate pair";
    EXPECT_EQ(peripheral.cachedServices.at(0).data1, 0xFFE9U);
    EXPECT_EQ(peripheral.characteristics, (std::array<bool, 6>{false, true, false, false, false, false}));
    const auto& rule = peripheral.faults.at(0);
    EXPECT_EQ(rule.point, (sim::FaultPoint{sim::FaultPoint::Call::subscribe, sim::CharacteristicKind::crtx}));
    EXPECT_EQ(rule.fault.code, platform::kRoEClosed);
}

TEST(SimScenario, FilesAreReadWithTheirFolderAndNamedInErrors) {
    const e2e::TemporaryFolder folder;
    const auto file = folder.path() / "world.json";
    std::ofstream(file) << R"({"drivers_db": "drivers.db"})";
    EXPECT_EQ(sim::readScenario(file).driversDb, folder.path() / "drivers.db");
    std::ofstream(file) << R"({"bad": 1})";
    for (const auto& unusable : {file, folder.path(), folder.path() / "missing.json"})
        EXPECT_EQ(refusal([&] { sim::readScenario(unusable); }).find(unusable.string()), 0U) << unusable;
}

}  // namespace
