#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "blescanner/blehelper.h"
#include "log_capture.h"
#include "platform/bluetooth/sim/world.h"

namespace blescanner {
namespace {

constexpr int kInfo = loguru::Verbosity_INFO;
constexpr int kWarning = loguru::Verbosity_WARNING;

std::string scenario(const std::string& adapters) {
    return R"({"adapters": [)" + adapters + "]}";
}

TEST(ProtocolSupport, LineAndCountByLmpVersion) {
    const std::tuple<int, const char*, std::uint32_t> cases[] = {
        {0, "A supports Bluetooth 1.0b", 0},
        {5, "A supports Bluetooth 3.0 + HS", 0},
        {6, "A supports Bluetooth 4.0", 1},
        {9, "A supports Bluetooth 5.0+", 1},
        {12, "Looks like newer LMP version is found12", 1},
        {255, "Looks like newer LMP version is found255", 1},
    };
    for (const auto& [lmp, line, counted] : cases) {
        sim::WorldScope world(scenario(R"({"name": "A", "hci": 1, "lmp": )" + std::to_string(lmp) + "}"));
        test::LogCapture log;
        std::uint32_t leCount = 3;
        EXPECT_TRUE(getBLEProtocolSupport(&leCount));
        EXPECT_EQ(leCount, 3 + counted) << lmp;
        EXPECT_EQ(log.lines().back(), (test::LogLine{kInfo, line}));
        EXPECT_TRUE(getBLEProtocolSupport(nullptr));
    }
}

TEST(ProtocolSupport, AdaptersThatDoNotAnswerAreAbsent) {
    sim::WorldScope world(scenario(R"({"name": "A", "name_error": 31}, {"name": "B", "version_error": 5},
                                      {"name": "C", "lmp": 6, "hci": 200})"));
    test::LogCapture log;
    std::vector<RadioVersionInfo> list;
    EXPECT_TRUE(enumerateRadioVersions(list));
    EXPECT_EQ(list, (std::vector<RadioVersionInfo>{{L"C", 6, 200}}));
    EXPECT_EQ(log.lines().size(), 7U);
    EXPECT_EQ(
        log.find("Could not get"),
        (test::LogLine{kWarning, "getBLEProtocolSupport: Could not get Bluetooth name, using instance! 31"}));
    EXPECT_EQ(log.find("No LMP"), (test::LogLine{kWarning, "getBLEProtocolSupport: No LMP version read! 5"}));
}

TEST(ProtocolSupport, NumberOfAdapters) {
    const std::tuple<int, std::size_t, std::ptrdiff_t> cases[] = {
        {0, 0, 0}, {1, 1, 0}, {33, 33, 0}, {34, 34, 1}, {40, 34, 1}};
    for (const auto& [adapters, examined, warnings] : cases) {
        std::string list;
        for (int count = 0; count < adapters; ++count)
            list += list.empty() ? "{}" : ",{}";
        sim::WorldScope world(scenario(list));
        test::LogCapture log;
        std::vector<RadioVersionInfo> infos;
        EXPECT_EQ(enumerateRadioVersions(infos), adapters > 0);
        EXPECT_EQ(infos.size(), examined);
        EXPECT_EQ(log.count("More than 32 instances found! Terminating the enumeration"), warnings)
            << adapters;
    }
}

class PairingRequest : public platform::DevicePairingRequestedEventArgs {
  public:
    explicit PairingRequest(std::uint32_t kind) : kind_(kind) {}

    platform::DevicePairingKinds pairingKind() const override { return platform::DevicePairingKinds{kind_}; }
    std::wstring pin() const override { return L"123456"; }
    void accept() override { answer += "accept"; }
    void acceptWithPin(const std::wstring& pin) override { answer += pin.empty() ? "empty pin" : "pin"; }

    std::string answer;

  private:
    std::uint32_t kind_;
};

TEST(PairingRequest, AnsweredByKind) {
    const std::string prefix = "Custom BLE connecting - ";
    const std::tuple<std::uint32_t, const char*, std::vector<std::string>> cases[] = {
        {1, "accept", {prefix + "ConfirmOnly"}},
        {2, "accept", {prefix + "DisplayPin"}},
        {4, "empty pin", {prefix + "ProvidePin"}},
        {8, "accept", {prefix + "ConfirmPinMatch"}},
        {0, "", {}},
        {3, "", {}},
        {16, "", {}},
    };
    for (const auto& [kind, answer, lines] : cases) {
        test::LogCapture log;
        PairingRequest request(kind);
        onPairingRequested(request);
        EXPECT_EQ(request.answer, answer) << kind;
        EXPECT_EQ(log.texts(), lines) << kind;
    }
}

}  // namespace
}  // namespace blescanner
