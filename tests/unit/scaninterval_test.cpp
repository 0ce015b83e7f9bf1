#include <gtest/gtest.h>

#include "blescanner/blehelper.h"
#include "log_capture.h"
#include "platform/bluetooth/sim/world.h"
#include "sleep_recorder.h"

namespace blescanner {
namespace {

TEST(SetScanIntervals, SentOncePerProcessWhateverTheDriverSays) {
    using Bytes = std::vector<std::uint8_t>;
    using Texts = std::vector<std::string>;
    const Bytes plain = {0, 0, 0, 0, 29, 0, 29, 0};
    const Bytes for1809 = {0, 0, 0, 0, 0, 0, 0, 0, 29, 0, 29, 0, 29, 0, 29, 0};
    const Bytes for1903 = {0, 0, 0, 0, 0, 0, 0, 0, 29, 0, 29, 0, 29, 0, 29, 0, 29, 0, 0, 0, 0, 0, 0, 0};
    const std::tuple<std::string, std::vector<Bytes>, Texts> cases[] = {
        {"0, 0, 0", {plain}, {}},
        {"997, 0, 0", {plain}, {"Configured BLE scan interval!"}},
        {"87, 997, 5",
         {plain, for1809, for1903},
         {"Could not configure BLE scan interval! 87", "Trying out 1809+ workaround",
          "[1809+] error in INTERVAL _COMMAND code 997", "Trying out 1903+ workaround",
          "[1903+] error in INTERVAL _COMMAND code 5"}},
    };
    for (const auto& [errors, commands, lines] : cases) {
        sim::WorldScope scope(R"({"adapters": [{"scan_command_errors": [)" + errors + "]}, {}]}");
        scanIntervalsConfigured = false;
        test::SleepRecorder recorder;
        test::LogCapture log;
        setScanIntervals();
        EXPECT_TRUE(waitForScanConfigThread(std::chrono::seconds(20)));
        EXPECT_TRUE(setScanIntervals());
        const auto texts = log.texts();
        const auto first = std::find(texts.begin(), texts.end(), "Applying scan intervals...8");
        ASSERT_NE(first, texts.end());
        EXPECT_EQ(Texts(first + 1, texts.end() - 1), lines);
        EXPECT_EQ(recorder.sleeps(), std::vector<long long>{250});
        EXPECT_EQ(scope.world().scanCommands(), commands);
    }
}

TEST(SetScanIntervals, FailsWithoutAnAdapter) {
    sim::WorldScope scope(R"({"adapters": []})");
    scanIntervalsConfigured = false;
    test::LogCapture log;
    EXPECT_FALSE(setScanIntervals());
    EXPECT_TRUE(log.find("setScanInterval: Could not find BLE device to work with! "));
}

}  // namespace
}  // namespace blescanner
