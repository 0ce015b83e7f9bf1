#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "blescanner/blehelper.h"
#include "log_capture.h"
#include "platform/bluetooth/sim/world.h"
#include "sleep_recorder.h"

namespace blescanner {
namespace {

using Bytes = std::vector<std::uint8_t>;
using platform::SystemError;

// Answers one error for each command and keeps what was sent.
struct RecordingAdapter : platform::Adapter {
    SystemError name(std::wstring&) const override { return SystemError::none; }
    SystemError localRadioInfo(platform::LocalRadioInfo&) const override { return SystemError::none; }
    SystemError scanCommand(std::span<const std::uint8_t> command, std::span<std::uint8_t> reply) override {
        EXPECT_TRUE(scanIntervalsConfigured);
        EXPECT_TRUE(!commands.empty() || reply.size() == 40);
        commands.emplace_back(command.begin(), command.end());
        return static_cast<SystemError>(errors.at(commands.size() - 1));
    }

    std::vector<std::uint32_t> errors;
    std::vector<Bytes> commands;
};

TEST(ScanConfigThread, CommandsAndLinesByAnswer) {
    using Texts = std::vector<std::string>;
    const Bytes plain = {0, 0, 0, 0, 29, 0, 29, 0};
    const Bytes for1809 = {0, 0, 0, 0, 0, 0, 0, 0, 29, 0, 29, 0, 29, 0, 29, 0};
    const Bytes for1903 = {0, 0, 0, 0, 0, 0, 0, 0, 29, 0, 29, 0, 29, 0, 29, 0, 29, 0, 0, 0, 0, 0, 0, 0};
    const std::tuple<std::vector<std::uint32_t>, std::vector<Bytes>, Texts> cases[] = {
        {{0}, {plain}, {}},
        {{997}, {plain}, {"Configured BLE scan interval!"}},
        {{87, 997, 5},
         {plain, for1809, for1903},
         {"Could not configure BLE scan interval! 87", "Trying out 1809+ workaround",
          "[1809+] error in INTERVAL _COMMAND code 997", "Trying out 1903+ workaround",
          "[1903+] error in INTERVAL _COMMAND code 5"}},
    };
    for (const auto& [errors, commands, lines] : cases) {
        scanIntervalsConfigured = false;
        const auto adapter = std::make_shared<RecordingAdapter>();
        adapter->errors = errors;
        test::LogCapture log;
        scanConfigThread({adapter, 29});
        EXPECT_EQ(adapter->commands, commands);
        const auto texts = log.texts();
        EXPECT_EQ(Texts(texts.begin() + 1, texts.end() - 1), lines);
    }
}

TEST(SetScanIntervals, OncePerProcessWhateverTheDriverSays) {
    scanIntervalsConfigured = false;
    test::LogCapture log;
    {
        sim::WorldScope world(R"({"adapters": []})");
        EXPECT_FALSE(setScanIntervals());
        EXPECT_TRUE(log.find("setScanInterval: Could not find BLE device to work with! "));
    }
    sim::WorldScope world(R"({"adapters": [{"scan_command_errors": [1, 2, 3]}, {}]})");
    test::SleepRecorder recorder;
    setScanIntervals();
    joinScanConfigThread();
    EXPECT_TRUE(setScanIntervals());
    EXPECT_EQ(recorder.sleeps(), std::vector<long long>{250});
    EXPECT_EQ(log.count("setScanIntervals: Value 29"), 1);
    EXPECT_EQ(log.count("[1903+] error in INTERVAL _COMMAND code 3"), 1);
}

}  // namespace
}  // namespace blescanner
