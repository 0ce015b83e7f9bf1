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

constexpr int kInfo = loguru::Verbosity_INFO;
constexpr int kWarning = loguru::Verbosity_WARNING;
constexpr int kError = loguru::Verbosity_ERROR;

// Answers one error for each command and keeps what was sent.
class RecordingAdapter : public platform::Adapter {
  public:
    explicit RecordingAdapter(std::vector<std::uint32_t> errors) : errors_(std::move(errors)) {}

    SystemError name(std::wstring&) const override { return SystemError::none; }
    SystemError localRadioInfo(platform::LocalRadioInfo&) const override { return SystemError::none; }
    SystemError scanCommand(std::span<const std::uint8_t> command, std::span<std::uint8_t> reply) override {
        EXPECT_TRUE(scanIntervalsConfigured);
        commands.emplace_back(command.begin(), command.end());
        replySizes.push_back(reply.size());
        return static_cast<SystemError>(errors_.at(commands.size() - 1));
    }

    std::vector<Bytes> commands;
    std::vector<std::size_t> replySizes;

  private:
    std::vector<std::uint32_t> errors_;
};

TEST(ScanConfigThread, CommandsAndLinesByAnswer) {
    const Bytes plain = {0, 0, 0, 0, 29, 0, 29, 0};
    const Bytes for1809 = {0, 0, 0, 0, 0, 0, 0, 0, 29, 0, 29, 0, 29, 0, 29, 0};
    const Bytes for1903 = {0, 0, 0, 0, 0, 0, 0, 0, 29, 0, 29, 0, 29, 0, 29, 0, 29, 0, 0, 0, 0, 0, 0, 0};
    const test::LogLine failed = {kWarning, "Could not configure BLE scan interval! 87"};
    const test::LogLine trying1809 = {kInfo, "Trying out 1809+ workaround"};
    const test::LogLine trying1903 = {kInfo, "Trying out 1903+ workaround"};
    struct Case {
        std::vector<std::uint32_t> errors;
        std::vector<Bytes> commands;
        std::vector<test::LogLine> lines;  // between the first and the last
    };
    const Case cases[] = {
        {{0}, {plain}, {}},
        {{997}, {plain}, {{kInfo, "Configured BLE scan interval!"}}},
        {{87, 0, 0}, {plain, for1809, for1903}, {failed, trying1809, trying1903}},
        {{87, 997, 5},
         {plain, for1809, for1903},
         {failed,
          trying1809,
          {kError, "[1809+] error in INTERVAL _COMMAND code 997"},
          trying1903,
          {kError, "[1903+] error in INTERVAL _COMMAND code 5"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.errors.front());
        scanIntervalsConfigured = false;
        const auto adapter = std::make_shared<RecordingAdapter>(c.errors);
        test::LogCapture log;
        scanConfigThread({adapter, 29});
        EXPECT_EQ(adapter->commands, c.commands);
        EXPECT_EQ(adapter->replySizes.front(), 40U);
        auto expected = c.lines;
        expected.insert(expected.begin(), {kInfo, "Applying scan intervals...8"});
        expected.push_back({kInfo, "Scan config thread terminated..."});
        EXPECT_EQ(log.lines(), expected);
    }
}

TEST(SetScanIntervals, OncePerProcessWhateverTheDriverSays) {
    scanIntervalsConfigured = false;
    test::LogCapture log;
    {
        sim::WorldScope world(R"({"adapters": []})");
        EXPECT_FALSE(setScanIntervals());
        EXPECT_EQ(log.lines().back().verbosity, kError);
        EXPECT_EQ(log.countContaining("setScanInterval: Could not find BLE device to work with! "), 1);
    }
    sim::WorldScope world(R"({"adapters": [{"scan_command_errors": [1, 2, 3]}, {}]})");
    test::SleepRecorder recorder;
    setScanIntervals();
    EXPECT_EQ(recorder.sleeps(), std::vector<long long>{250});
    joinScanConfigThread();
    EXPECT_EQ(log.count("setScanIntervals: Value 29"), 1);
    EXPECT_EQ(log.count("Could not configure BLE scan interval! 1"), 1);
    EXPECT_EQ(log.count("[1903+] error in INTERVAL _COMMAND code 3"), 1);

    log.clear();
    EXPECT_TRUE(setScanIntervals());
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace blescanner
