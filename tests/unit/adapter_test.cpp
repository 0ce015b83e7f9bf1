#include <gtest/gtest.h>

#include "blescanner/blehelper.h"
#include "log_capture.h"
#include "platform/bluetooth/sim/world.h"

namespace blescanner {
namespace {

std::string scenario(const std::string& adapters) {
    return R"({"adapters": [)" + adapters + "]}";
}

TEST(ProtocolSupport, LineAndCountByLmpVersion) {
    const std::tuple<int, const char*, std::uint32_t> cases[] = {
        {0, "A supports Bluetooth 1.0b", 0},
        {1, "A supports Bluetooth 1.1", 0},
        {2, "A supports Bluetooth 1.2", 0},
        {3, "A supports Bluetooth 2.0 + EDR", 0},
        {4, "A supports Bluetooth 2.1 + EDR", 0},
        {5, "A supports Bluetooth 3.0 + HS", 0},
        {6, "A supports Bluetooth 4.0", 1},
        {7, "A supports Bluetooth 4.1", 1},
        {8, "A supports Bluetooth 4.2", 1},
        {9, "A supports Bluetooth 5.0+", 1},
        {10, "Looks like newer LMP version is found10", 1},
    };
    for (const auto& [lmp, line, counted] : cases) {
        sim::WorldScope world(scenario(R"({"name": "A", "lmp": )" + std::to_string(lmp) + "}"));
        test::LogCapture log;
        std::uint32_t leCount = 3;
        EXPECT_TRUE(getBLEProtocolSupport(&leCount));
        EXPECT_EQ(leCount, 3 + counted) << lmp;
        EXPECT_EQ(log.texts().back(), line);
    }
}

TEST(ProtocolSupport, AdaptersThatDoNotAnswerAreAbsent) {
    sim::WorldScope world(scenario(R"({"name": "A", "name_error": 31}, {"name": "B", "version_error": 5},
                                      {"name": "C", "lmp": 6, "hci": 200})"));
    std::vector<RadioVersionInfo> list;
    EXPECT_TRUE(enumerateRadioVersions(list));
    EXPECT_EQ(list, (std::vector<RadioVersionInfo>{{L"C", 6, 200}}));
}

TEST(ProtocolSupport, NumberOfAdapters) {
    for (const std::size_t adapters : {0, 1, 33, 34, 40}) {
        std::string list;
        for (std::size_t count = 0; count < adapters; ++count)
            list += list.empty() ? "{}" : ",{}";
        sim::WorldScope world(scenario(list));
        test::LogCapture log;
        std::vector<RadioVersionInfo> infos;
        EXPECT_EQ(enumerateRadioVersions(infos), adapters > 0);
        EXPECT_EQ(infos.size(), std::min<std::size_t>(adapters, 34));
        EXPECT_EQ(log.count("More than 32 instances found! Terminating the enumeration"), adapters > 33);
    }
}

struct PairingRequest : platform::DevicePairingRequestedEventArgs {
    explicit PairingRequest(std::uint32_t number) : kind(number) {}
    platform::DevicePairingKinds pairingKind() const override { return platform::DevicePairingKinds{kind}; }
    std::wstring pin() const override { return L"123456"; }
    void accept() override { answer += "accept"; }
    void acceptWithPin(const std::wstring& pin) override { answer += pin.empty() ? "empty pin" : "pin"; }

    std::uint32_t kind;
    std::string answer;
};

TEST(PairingRequest, AnsweredByKind) {
    const std::pair<std::uint32_t, const char*> cases[] = {
        {1, "accept"}, {2, "accept"}, {4, "empty pin"}, {8, "accept"}, {0, ""}, {3, ""}, {16, ""}};
    for (const auto& [kind, answer] : cases) {
        PairingRequest request(kind);
        onPairingRequested(request);
        EXPECT_EQ(request.answer, answer) << kind;
    }
}

}  // namespace
}  // namespace blescanner
