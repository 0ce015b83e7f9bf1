// Plays every row of docs/set-up.md. The document is the list of cases.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "blescanner/bleif_impl.h"
#include "blescanner/bleif_impl_legacy.h"
#include "tests/eventually.h"
#include "tests/unit/document_table.h"
#include "tests/unit/link_fixture.h"
#include "tests/unit/sleep_recorder.h"

namespace {

using Texts = std::vector<std::string>;

// Without the looks of a session that waits to be stopped, every 100 ms.
std::string pauses(std::vector<long long> sleeps) {
    while (sleeps.size() > 1 && sleeps.back() == 100 && sleeps[sleeps.size() - 2] == 100)
        sleeps.pop_back();
    return test::joined(sleeps);
}

// The answer to the MTU comes from another thread.
std::string requests(Texts asked) {
    std::stable_partition(asked.begin(), asked.end(),
                          [](const auto& request) { return request.find("RXMTU") == std::string::npos; });
    return test::joined(asked, ", ");
}

// The cells of a row behind the first one, as the program fills them.
Texts setUp(const std::string& generation, const test::TableRow& row) {
    test::LogCapture log;
    test::Link link(R"({"os_version": [10, 0, )" + generation + R"(], "peripherals": [{)" + row.cells.at(0) +
                    "}]}");
    test::SleepRecorder recorder;
    link.connect();
    const std::string line = link.line();
    const bool settled = test::eventually([&] {
        return log.find("Starting communication loop...") || log.find("Expecting disconnect...") ||
               log.find("commThread is DONE!") || log.find("commThread TERM");
    });
    EXPECT_TRUE(settled);
    Texts cells;
    const auto asExpected = [&] {
        cells = {row.cells[0], line, pauses(recorder.sleeps()), requests(link.peripheral().hostRequests()),
                 test::joined(log.troubles(), "<br>")};
        return cells == row.cells;
    };
    test::eventually(asExpected, std::chrono::seconds(5));
    link.stop();
    EXPECT_TRUE(link.ended());  // nobody sleeps any more while the recorder goes
    return cells;
}

TEST(SetUp, DoesWhatTheDocumentSays) {
    const auto rows = test::tableRows("set-up.md");
    ASSERT_GT(rows.size(), 40U);
    for (const auto& row : rows) {
        if (row.cells.size() != 5) continue;
        const bool newer = row.section.starts_with("The newer");
        ASSERT_EQ(setUp(newer ? "15063" : "15062", row), row.cells) << row.section;
    }
}

TEST(SetUp, WordsTheOutcomesOfAPairingAsTheDocumentDoes) {
    int outcome = 0;
    for (const auto& row : test::tableRows("set-up.md")) {
        if (row.cells.size() != 2) continue;
        ASSERT_EQ(row.cells[0], std::to_string(outcome));
        const auto* text = blescanner::pairingResultText(platform::DevicePairingResultStatus(outcome++));
        EXPECT_EQ(platform::toUtf8(text), row.cells[1]);
    }
    EXPECT_EQ(outcome, 21);
}

// The result says whether this call has paired the peripheral.
TEST(SetUp, PairsOnTheOlderGenerationOnly) {
    struct Case {
        const char* peripheral;
        bool paired;
        const char* logged;
    };
    const Case cases[] = {
        {"", true, "Device CONNECTED!"},
        {R"("pairing": {"paired": true})", false, "Device is already accessible!"},
        {R"("pairing": {"can_pair": false})", false, "Device seems not connectable!"},
        {R"("pairing": {"custom": false})", false, "No customized connection possible!"},
        {R"("pairing": {"kind": 4})", true, "Custom BLE connecting - ProvidePin"},
        {R"("pairing": {"kind": 16})", false, "status is: The application handler rejected the pairing."},
        {R"("pairing": {"result": 7})", false, "status is: The authentication process timed out"},
        {R"("faults": [{"on": "pair", "do": "no-operation"}])", false, "Could not start connecting"},
        {R"("faults": [{"on": "pair", "do": "null"}])", false, "Connection returned NULL status"},
    };
    for (const Case& item : cases) {
        const sim::WorldScope world(R"({"peripherals": [{)" + std::string(item.peripheral) + "}]}");
        const test::LogCapture log;
        const auto context = std::make_shared<blescanner::TioContext>();
        EXPECT_TRUE(blescanner::BLEIFModern(context).prepareConnection(0x001A7DDA7113, 0));
        EXPECT_TRUE(log.texts().empty());
        EXPECT_EQ(blescanner::BLEIFLegacy(context).prepareConnection(0x001A7DDA7113, 0), item.paired)
            << item.peripheral;
        EXPECT_TRUE(log.find(item.logged)) << item.logged;
    }
    const sim::WorldScope world;
    const auto context = std::make_shared<blescanner::TioContext>();
    EXPECT_FALSE(blescanner::BLEIFLegacy(context).prepareConnection(1, 0)) << "no such peripheral";
}

}  // namespace
