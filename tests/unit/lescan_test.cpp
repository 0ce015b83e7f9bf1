#include "blescanner/lescan.h"

#include <gtest/gtest.h>

#include "blescanner/blehelper.h"
#include "log_capture.h"
#include "platform/bluetooth/sim/world.h"
#include "sleep_recorder.h"

namespace blescanner {
namespace {

TEST(LeScan, ResultLine) {
    const std::pair<std::string, std::wstring> cases[] = {
        {"", L""},
        {R"({"advertises": null}, {"address": "00:00:00:00:00:01", "advertises": []})", L""},
        // A name that comes without the list of services cannot be told apart from a stranger's.
        {R"({"name_apart": true})", L"00:1a:7d:da:71:13\r\n"},
        {R"({"address": "00:1A:7D:DA:71:0F", "name": ""})", L"00:1a:7d:da:71:0f\r\n"},
        {R"({"address": "FF:00:00:00:00:01", "name": "Z"},
            {"address": "00:00:00:00:00:0A", "name": "a;b", "advertises": ["180F", "0000FEFB-0000-1000-8000-00805F9B34FB"]},
            {"address": "00:00:00:00:00:0B", "name": "other", "advertises": ["FEFC"]})",
         L"00:00:00:00:00:0a;a;b,ff:00:00:00:00:01;Z\r\n"},
        // No control character in a name gets through, not even as the byte that is left of a wide unit on
        // the pipe.
        {R"({"address": "00:00:00:00:00:01", "name": "A\r\nTIO DROP\r\u010D\u020A\u0141\u0000\u011B[\u207F\u0080\u039F\u00A0~"})",
         L"00:00:00:00:00:01;A  TIO DROP   \u0141  [   \u00A0~\r\n"},
    };
    for (const auto& [peripherals, expected] : cases) {
        sim::WorldScope world(R"({"time_scale": 50, "peripherals": [)" + peripherals + "]}");
        scanIntervalsConfigured = true;
        test::SleepRecorder recorder(50);
        std::wstring result = L"old";
        scanForTioDevices(result, 2000, [] { return true; });
        EXPECT_EQ(result, expected) << peripherals;
        EXPECT_EQ(recorder.sleeps(), (std::vector<long long>{500, 2000, 200}));
        // Names come with an active scan only.
        EXPECT_EQ(world.world().scans.all(),
                  (std::vector{platform::ScanningMode::passive, platform::ScanningMode::active}));
    }
}

TEST(LeScan, GoesOnWithoutScanTiming) {
    sim::WorldScope world(R"({"time_scale": 50, "adapters": []})");
    scanIntervalsConfigured = false;
    test::SleepRecorder recorder(50);
    test::LogCapture log;
    std::wstring result;
    scanForTioDevices(result, 1000, [] { return true; });
    EXPECT_TRUE(log.find("[WARNING] Scanning with default large window!"));
    EXPECT_EQ(result, L"00:1a:7d:da:71:13;TIO-SIM\r\n");
}

}  // namespace
}  // namespace blescanner
