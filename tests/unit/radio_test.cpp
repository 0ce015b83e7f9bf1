#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "blescanner/blehelper.h"
#include "log_capture.h"
#include "platform/bluetooth/sim/world.h"
#include "sleep_recorder.h"

namespace blescanner {
namespace {

using Texts = std::vector<std::string>;
using Sleeps = std::vector<long long>;

const std::string kWiFi = R"({"name": "W", "kind": "WiFi", "state": "On"})";

std::string radio(const std::string& name, const std::string& state, const std::string& more = "") {
    return R"({"name": ")" + name + R"(", "state": ")" + state + R"(")" + more + "}";
}

// With one driver, for which no look-up is due: its listing shows that the driver check has run.
std::string scenario(const std::string& radios) {
    return R"({"radios": )" + radios +
           R"(, "drivers": [{"compatible": [{"date": "2016-05-01T12:00:00Z"}]}]})";
}

TEST(CheckBluetoothRadio, ResultCounterAndDriverCheck) {
    struct Case {
        std::string radios;
        RadioCheckResult result;
        std::uint32_t counted;
        std::ptrdiff_t driversListed;
    };
    const Case cases[] = {
        {"null", RadioCheckResult::BluetoothOn, 0, 0},
        {"[]", RadioCheckResult::BluetoothOff, 0, 1},
        {"[" + kWiFi + "]", RadioCheckResult::BluetoothOff, 0, 1},
        {"[" + radio("A", "Off") + "," + radio("B", "On") + "]", RadioCheckResult::BluetoothOn, 2, 1},
        {"[" + radio("A", "On") + "," + radio("B", "On") + "]", RadioCheckResult::BluetoothOn, 1, 1},
        {"[" + radio("A", "Disabled") + "," + radio("B", "Unknown") + "]", RadioCheckResult::BluetoothOff, 2,
         1},
    };
    for (const auto& c : cases) {
        for (const bool runDriverCheck : {false, true}) {
            SCOPED_TRACE(c.radios);
            sim::WorldScope world(scenario(c.radios));
            test::LogCapture log;
            std::uint32_t counter = 7;
            EXPECT_EQ(checkBluetoothRadio(counter, runDriverCheck), c.result);
            EXPECT_EQ(counter, 7 + c.counted);
            EXPECT_EQ(log.count("---------------"), runDriverCheck ? c.driversListed : 0);
        }
    }
}

TEST(CheckBluetoothRadio, Lines) {
    sim::WorldScope world(scenario("[" + kWiFi + "," + radio("", "Disabled") + "," + radio("C", "Off") + "," +
                                   radio("D", "On") + "]"));
    test::LogCapture log;
    std::uint32_t counter = 0;
    checkBluetoothRadio(counter, false);
    const std::string checking = "Checking radio object...";
    const Texts expected = {"Retrieving list of radio devices...",
                            "Found 4 radio objects",
                            checking,
                            "Radio object is W",
                            "Found radio device which is not Bluetooth!",
                            checking,
                            "Radio object has no name",
                            "Found Bluetooth:  which is Disabled/Unknown",
                            checking,
                            "Radio object is C",
                            "Found Bluetooth: C which is OFF",
                            checking,
                            "Radio object is D",
                            "Found Bluetooth: D which is ON"};
    EXPECT_EQ(log.texts(), expected);
}

TEST(SwitchRadios, PacedByTheState) {
    const Sleeps full = {1500, 1500, 1500, 1500, 1500, 1500, 1500, 1500, 1500, 1500, 1000};
    const Sleeps half = {1500, 1500, 1500, 1500, 1500, 1500, 1000};
    Sleeps fullTwice = full;
    fullTwice.insert(fullTwice.end(), full.begin(), full.end());
    const std::string stuck = R"(, "stuck": true)";
    struct Case {
        std::string radios;
        Sleeps reset;
        Sleeps switchOn;
    };
    const Case cases[] = {
        {"[" + radio("obeys", "On") + "]", full, {}},
        {"[" + radio("obeys", "Disabled") + "]", full, {}},
        {"[" + radio("A", "Off") + "," + kWiFi + "," + radio("B", "Off") + "]", fullTwice, {1000, 1000}},
        {"[" + radio("stays", "On", stuck) + "]", half, {}},
        {"[" + radio("stays", "Off", stuck) + "]", half, {1000, 1000, 1000, 1000, 1000}},
        {"[" + radio("stays", "Disabled", stuck) + "]", {1500, 1500, 1000}, {}},
    };
    const auto sleepsOf = [](void (*operation)(), const std::string& radios) {
        sim::WorldScope world(scenario(radios));
        test::SleepRecorder recorder;
        operation();
        return recorder.sleeps();
    };
    for (const auto& c : cases) {
        EXPECT_EQ(sleepsOf(resetBluetooth, c.radios), c.reset) << c.radios;
        EXPECT_EQ(sleepsOf(switchBluetoothOn, c.radios), c.switchOn) << c.radios;
    }
}

TEST(SwitchRadios, Lines) {
    const Texts switchOn = {"Bluetooth ON initiated...", "Found 1 radio objects",
                            "Checking radio object...",  "Radio object has not name!",
                            "Radio object going ON ",    "Radio object state is now 1"};
    const std::string noList = "Resetting Bluetooth: Could not find radio objects!";
    test::SleepRecorder recorder;
    test::LogCapture log;
    {
        sim::WorldScope world(scenario("[" + radio("", "Off") + "]"));
        switchBluetoothOn();
        EXPECT_EQ(log.texts(), switchOn);
        resetBluetooth();
        EXPECT_EQ(log.count("Radio object has not name!"), 2);
    }
    sim::WorldScope world(scenario("null"));
    resetBluetooth();
    switchBluetoothOn();
    EXPECT_EQ(log.count(noList), 2);
    EXPECT_EQ(log.find(noList)->verbosity, loguru::Verbosity_ERROR);
}

}  // namespace
}  // namespace blescanner
