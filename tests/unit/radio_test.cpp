#include <gtest/gtest.h>

#include <functional>

#include "blescanner/blehelper.h"
#include "blescanner/waiting.h"
#include "log_capture.h"
#include "platform/bluetooth/sim/world.h"
#include "sleep_recorder.h"

namespace blescanner {
namespace {

using Sleeps = std::vector<long long>;

const std::string kWiFi = R"({"name": "W", "kind": "WiFi", "state": "On"})";

std::string radio(const std::string& state, const std::string& more = "") {
    return R"({"state": ")" + state + R"(")" + more + "}";
}

// Has one driver, so that its line in the log shows that the driver check has run.
std::string worldWith(const std::string& radios) {
    return R"({"radios": )" + radios +
           R"(, "drivers": [{"compatible": [{"date": "2016-05-01T12:00:00Z"}]}]})";
}

TEST(CheckBluetoothRadio, ResultCounterAndDriverCheck) {
    const auto on = RadioCheckResult::BluetoothOn, off = RadioCheckResult::BluetoothOff;
    const std::tuple<std::string, RadioCheckResult, std::uint32_t, std::ptrdiff_t> cases[] = {
        {"null", on, 0, 0},
        {"[]", off, 0, 1},
        {"[" + kWiFi + "]", off, 0, 1},
        {"[" + radio("Off") + "," + radio("On") + "]", on, 2, 1},
        {"[" + radio("On") + "," + radio("On") + "]", on, 1, 1},
        {"[" + radio("Disabled") + "," + radio("Unknown") + "]", off, 2, 1},
    };
    for (const auto& [radios, result, counted, driversListed] : cases) {
        sim::WorldScope world(worldWith(radios));
        test::LogCapture log;
        std::uint32_t counter = 7;
        EXPECT_EQ(checkBluetoothRadio(counter, false, programEnd()), result) << radios;
        EXPECT_EQ(counter, 7 + counted);
        EXPECT_EQ(log.count("---------------"), 0);
        EXPECT_EQ(checkBluetoothRadio(counter, true, programEnd()), result);
        EXPECT_EQ(log.count("---------------"), driversListed);
    }
}

// What a switch does: the sleeps, and the states that were asked for, as "off on".
struct Switched {
    Sleeps sleeps;
    std::string requests;
    bool operator==(const Switched&) const = default;
};

Switched play(const std::string& world, const std::function<void()>& operation) {
    sim::WorldScope scope(world);
    test::SleepRecorder recorder;
    operation();
    std::string requests;
    for (const auto state : scope.world().radioRequests())
        requests += state == platform::RadioState::on ? " on" : " off";
    return {recorder.sleeps(), requests};
}

TEST(SwitchRadios, PacedByTheState) {
    const Sleeps full = {1500, 1500, 1500, 1500, 1500, 1500, 1500, 1500, 1500, 1500, 1000};
    const Sleeps half = {1500, 1500, 1500, 1500, 1500, 1500, 1000};
    Sleeps fullTwice = full;
    fullTwice.insert(fullTwice.end(), full.begin(), full.end());
    const std::string stuck = R"(, "stuck": true)";
    const std::tuple<std::string, Switched, Switched> cases[] = {
        {"null", {}, {}},
        {"[" + radio("On") + "]", {full, " off on"}, {}},
        {"[" + radio("Off") + "," + kWiFi + "," + radio("Off") + "]",
         {fullTwice, " off on off on"},
         {{1000, 1000}, " on on"}},
        {"[" + radio("On", stuck) + "]", {half, " off on"}, {}},
        {"[" + radio("Off", stuck) + "]", {half, " off on"}, {{1000, 1000, 1000, 1000, 1000}, " on"}},
        {"[" + radio("Disabled", stuck) + "]", {{1500, 1500, 1000}, " off on"}, {}},
    };
    for (const auto& [radios, reset, switchOn] : cases) {
        EXPECT_TRUE(play(worldWith(radios), [] { resetBluetooth(programEnd()); }) == reset) << radios;
        EXPECT_TRUE(play(worldWith(radios), switchBluetoothOn) == switchOn) << radios;
    }
}

TEST(SwitchRadios, AStoppedResetSwitchesOnWhatItHasSwitchedOff) {
    Sleeps looks(51, 150);
    looks[0] = 1500;
    const std::pair<std::string, Sleeps> cases[] = {
        {radio("On"), {1500}},
        {radio("On", R"(, "stuck": true)"), looks},
        {radio("Off", R"(, "stuck": true)"), looks},
    };
    for (const auto& [radios, sleeps] : cases) {
        StopSignal stop;
        EXPECT_FALSE(isBluetoothResetting());
        sim::WorldScope scope(worldWith("[" + radios + "]"));
        test::SleepRecorder recorder;
        Sleeps slept;
        platform::setSleepObserver([&](std::chrono::milliseconds duration) {
            slept.push_back(duration.count());
            EXPECT_TRUE(isBluetoothResetting());
            stop.stop();
        });
        EXPECT_THROW(resetBluetooth(stop), Stopped);
        EXPECT_FALSE(isBluetoothResetting());
        EXPECT_EQ(slept, sleeps) << radios;
        using enum platform::RadioState;
        EXPECT_EQ(scope.world().radioRequests(), (std::vector{off, on}));
    }
    StopSignal stopped;
    stopped.stop();
    EXPECT_EQ(play(worldWith("[" + radio("On") + "]"),
                   [&stopped] { EXPECT_THROW(resetBluetooth(stopped), Stopped); })
                  .requests,
              "");
}

// Log readers tell a check from a switch by the words for a radio without a name.
TEST(Radios, WhatTheLogTells) {
    const std::string nameless =
        R"("radios": [{"name": "", "state": "Disabled"}, {"name": "N", "state": "Off"}])";
    const std::tuple<std::string, bool, const char*> cases[] = {
        {nameless, false, "Radio object has no name"},
        {nameless, false, "Radio object is N"},
        {nameless, false, "Found Bluetooth:  which is Disabled/Unknown"},
        {nameless, false, "Found Bluetooth: N which is OFF"},
        {nameless, true, "Radio object has not name!"},
        {nameless, true, "Radio object going OFF "},
        {R"("radios": null)", true, "Resetting Bluetooth: Could not find radio objects!"},
        {R"("faults": [{"on": "radios", "do": "no-operation"}])", false,
         "Could not get access to Windows Radio - assuming Bluetooth is ON"},
        {R"("faults": [{"on": "radio:state", "do": "throw:0x80070005"}])", true, " HRESULT: -2147024891"},
    };
    for (const auto& [world, reset, line] : cases) {
        test::LogCapture log;
        std::uint32_t radios = 0;
        play("{" + world + "}", [reset = reset, &radios] {
            reset ? resetBluetooth(programEnd()) : void(checkBluetoothRadio(radios, false, programEnd()));
        });
        EXPECT_TRUE(log.find(line)) << line;
    }
}

}  // namespace
}  // namespace blescanner
