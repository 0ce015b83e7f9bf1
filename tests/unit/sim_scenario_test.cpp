// Reading scenario files, and refusing bad ones.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include "platform/bluetooth/sim/scenario.h"
#include "platform/runtime.h"
#include "tests/unit/document_table.h"
#include "tests/unit/support.h"

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

// A scenario in which the object that a key of docs/scenario.md belongs to has these members. The key may
// name an object in it: "link.interval_us", "compatible[].date".
std::string scenarioWith(const std::string& section, const std::string& key, const std::string& members) {
    const auto nest = [](const std::string& name, const std::string& json) {
        const bool list = name.ends_with("[]");
        return "{\"" + name.substr(0, name.size() - (list ? 2 : 0)) +
               "\": " + (list ? "[" + json + "]" : json) + "}";
    };
    const auto dot = key.find('.');
    std::string json = "{" + members + "}";
    if (dot != std::string::npos) json = nest(key.substr(0, dot), json);
    return section.ends_with("[]") ? nest(section, json) : json;
}

struct Values {
    std::vector<std::string> good, bad;
    std::string expected;  // of the error's text
};

// From what the document says of a key's type; a list has the value in each place.
Values valuesOf(const std::string& type) {
    Values values;
    std::smatch found;
    if (std::regex_search(type, found, std::regex(R"((\d+) to (\d+))"))) {
        const auto lowest = std::stoll(found[1]), highest = std::stoll(found[2]);
        values = {{found[1], found[2]},
                  {std::to_string(lowest - 1), std::to_string(highest + 1), "\"1\""},
                  "from " + found[1].str() + " to " + found[2].str()};
    } else if (type == "true or false") {
        values = {{"true", "false"}, {"1"}, "true or false"};
    } else if (type.starts_with("text")) {
        values = {{}, {"5"}, "expected "};
        if (type == "text") values.good = {"\"some other\"", "\"\""};
    } else if (type.starts_with('"')) {
        values.bad = {"\"Nonsense\"", "1"};
        values.expected = "one of";
        const std::regex quoted(R"("[^"]+")");
        for (std::sregex_iterator name(type.begin(), type.end(), quoted); name != std::sregex_iterator();
             ++name) {
            values.good.push_back(name->str());
            values.expected += " " + name->str();
        }
    }
    if (type.find("three numbers") == std::string::npos) return values;
    for (auto* list : {&values.good, &values.bad}) {
        for (auto& value : *list)
            value = "[" + value + ", " + value + ", " + value + "]";
    }
    return values;
}

void checkKey(const std::string& section, const std::string& key, const std::string& usual,
              const Values& values) {
    SCOPED_TRACE(section + " " + key);
    const std::string name = key.substr(key.find('.') + 1);
    const auto with = [&](const std::string& value) {
        return parseScenario(scenarioWith(section, key, "\"" + name + "\": " + value));
    };
    const auto defaults = parseScenario(scenarioWith(section, key, ""));
    EXPECT_EQ(with(usual), defaults);
    if (!key.starts_with("link.")) {  // its keys need each other
        for (const auto& value : values.good)
            EXPECT_TRUE(with(value) != defaults || value.find(usual) != std::string::npos) << value;
    }
    for (const auto& value : values.bad) {
        const auto message = refusal([&] { with(value); });
        EXPECT_NE(message.find(name), std::string::npos) << message;
        EXPECT_NE(message.find(values.expected), std::string::npos) << value << ": " << message;
    }
}

TEST(SimScenario, KeysHaveTheTypesBoundsAndDefaultsOfTheDocument) {
    int checked = 0;
    for (const auto& row : test::tableRows("scenario.md")) {
        if (row.header[0] != "key" || row.cells[0] == "serial" || row.cells[0] == "time_scale") continue;
        if (row.cells[2].find_first_of("0123456789[\"tf") != 0) continue;  // a default in words
        for (const std::string& key : test::split(row.cells[0], ',')) {
            checkKey(row.section, key, row.cells[2], valuesOf(row.cells[1]));
            ++checked;
        }
    }
    EXPECT_GE(checked, 35);
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
    const test::TemporaryFolder folder;
    const auto file = folder.path() / "world.json";
    std::ofstream(file) << R"({"drivers_db": "drivers.db"})";
    EXPECT_EQ(sim::readScenario(file).driversDb, folder.path() / "drivers.db");
    std::ofstream(file) << R"({"bad": 1})";
    for (const auto& unusable : {file, folder.path(), folder.path() / "missing.json"})
        EXPECT_EQ(refusal([&] { sim::readScenario(unusable); }).find(unusable.string()), 0U) << unusable;
}

}  // namespace
