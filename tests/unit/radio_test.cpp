#include <gtest/gtest.h>

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

TEST(SwitchRadios, PacedByTheState) {
    const Sleeps full = {1500, 1500, 1500, 1500, 1500, 1500, 1500, 1500, 1500, 1500, 1000};
    const Sleeps half = {1500, 1500, 1500, 1500, 1500, 1500, 1000};
    Sleeps fullTwice = full;
    fullTwice.insert(fullTwice.end(), full.begin(), full.end());
    const std::string stuck = R"(, "stuck": true)";
    const std::tuple<std::string, Sleeps, Sleeps> cases[] = {
        {"null", {}, {}},
        {"[" + radio("On") + "]", full, {}},
        {"[" + radio("Off") + "," + kWiFi + "," + radio("Off") + "]", fullTwice, {1000, 1000}},
        {"[" + radio("On", stuck) + "]", half, {}},
        {"[" + radio("Off", stuck) + "]", half, {1000, 1000, 1000, 1000, 1000}},
        {"[" + radio("Disabled", stuck) + "]", {1500, 1500, 1000}, {}},
    };
    const auto sleepsOf = [](void (*operation)(), const std::string& radios) {
        sim::WorldScope world(worldWith(radios));
        test::SleepRecorder recorder;
        operation();
        return recorder.sleeps();
    };
    for (const auto& [radios, reset, switchOn] : cases) {
        EXPECT_EQ(sleepsOf([] { resetBluetooth(programEnd()); }, radios), reset) << radios;
        EXPECT_EQ(sleepsOf(switchBluetoothOn, radios), switchOn) << radios;
    }
}

}  // namespace
}  // namespace blescanner
