// Plays every cell of the tables in docs/failures.md. The document is the list of cases.
#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/eventually.h"
#include "tests/unit/document_table.h"
#include "tests/unit/link_fixture.h"

namespace {

using namespace std::chrono_literals;

struct Cell {
    std::string generation, point, after, times, action, expected;
    bool duringTransfer = false;
};

std::vector<Cell> readCells() {
    std::vector<Cell> cells;
    for (const auto& row : test::tableRows("failures.md")) {
        for (std::size_t column = 4; column < row.cells.size(); ++column) {
            if (row.cells[column].empty()) continue;
            cells.push_back({row.cells[0], row.cells[1], row.cells[2], row.cells[3], row.header.at(column),
                             row.cells[column], row.section == "While bytes move"});
        }
    }
    return cells;
}

bool isSecondGrant(const Cell& item) {
    return item.duringTransfer && item.point == "write:CRRX";
}

std::string scenario(const Cell& item) {
    static const std::map<std::string, std::string> actions = {
        {"error", "error:0x80004005"}, {"closed", "error:0x80000013"}, {"throw", "throw:0x80004005"}};
    const auto spelled = actions.find(item.action);
    const bool newer = item.generation == "newer";
    std::ostringstream text;
    text << R"({"os_version": [10, 0, )" << (newer ? "15063" : "15062") << R"(], "peripherals": [{)";
    // The full listing is asked for only when the look-up by UUID has failed.
    if (newer && item.point == "services:all") text << R"("appears_after_listing": true, )";
    // Without the MTU characteristics no other write is under way when the fault comes.
    if (item.duringTransfer || item.point == "session") {
        text << R"("characteristics": ["TX", "RX", "CRTX", "CRRX"], )";
    }
    text << R"("faults": [{"on": ")" << item.point << R"(", "after": )" << item.after << R"(, "times": )"
         << item.times << R"(, "do": ")" << (spelled == actions.end() ? item.action : spelled->second)
         << R"("}]}]})";
    return text.str();
}

// Expects the lines of the cell. "STATUS CLOSED" may be missing before "TIO DROP". "CONNECT TIO" may come
// before "TIO DROP" when another thread than the session's notices the drop.
void expectLines(test::Link& link, const std::string& expected) {
    for (const std::string& wanted : test::split(expected, ',')) {
        std::string line = link.line();
        if (wanted == "STATUS CLOSED" && line == "TIO DROP") return;
        if (wanted == "TIO DROP" && line == "CONNECT TIO") line = link.line();
        ASSERT_EQ(line, wanted);
    }
}

// Checks whether the session has ended by itself, before the test stops it.
void expectStateBeforeStop(test::Link& link, const Cell& item) {
    const auto tells = [&](const char* line) { return item.expected.find(line) != std::string::npos; };
    if (tells("TIO DROP") || tells("ERROR EXP") || (tells("ERROR TIO") && item.point != "characteristics")) {
        EXPECT_TRUE(item.action == "hang" || link.ended());
    } else {
        EXPECT_FALSE(blescanner::waitForLinkSessions(0ms));
    }
}

// Whether the call itself does not come back, so that its thread stays.
bool blocks(const Cell& item) {
    const bool listsAtOnce = item.point == "services:all" && item.after == "0";
    const bool looksUpAtOnce = item.point == "characteristics" && item.generation == "older";
    return item.action == "hang" && (item.point == "session" || listsAtOnce || looksUpAtOnce);
}

void play(const Cell& item) {
    test::Link link(scenario(item));
    link.connect();
    if (item.duringTransfer) {
        ASSERT_EQ(link.line(), "CONNECT TIO");
        auto data = link.openData();
        data.send(isSecondGrant(item) ? std::string(40 * 20, 'x') : "one packet");
    }
    if (item.expected != "waits" && item.expected != "none") {
        ASSERT_NO_FATAL_FAILURE(expectLines(link, item.expected));
    }
    ASSERT_TRUE(test::eventually([&] { return link.peripheral().faultsHappened() > 0; }));
    EXPECT_EQ(link.line(5ms), "");

    expectStateBeforeStop(link, item);

    link.stop();
    const auto calls = link.peripheral().hostCalls();
    EXPECT_TRUE(blocks(item) || link.ended());
    EXPECT_TRUE(item.action == "hang" || !link.peripheral().connected())
        << "an object of the link is still held";
    EXPECT_EQ(link.line(1ms), "");
    EXPECT_EQ(link.peripheral().hostCalls(), calls) << "a stopped session has gone on";
    link.peripheral().repair();
    link.connect();
    EXPECT_EQ(link.line(), "CONNECT TIO");
}

TEST(FailureMatrix, TheClientGetsWhatTheDocumentSays) {
    const auto cases = readCells();
    ASSERT_GT(cases.size(), 200U);
    play(cases.front());
    const auto before = machine::resourcesOf(test::ownProcessId());
    const testing::TestResult& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
    std::optional<std::chrono::steady_clock::time_point> end;
    int failed = 0;
    for (const Cell& item : cases) {
        SCOPED_TRACE(item.generation + " " + item.point + " " + item.after + "+" + item.times + " " +
                     item.action);
        const auto start = std::chrono::steady_clock::now();
        const int failures = result.total_part_count();
        play(item);
        if (result.total_part_count() == failures) continue;
        // A broken program fails in many cells, mostly at the end of a deadline.
        if (!end) end = start + test::kDeadline;
        ASSERT_LT(++failed, 5) << "the cells behind this one are left out";
        ASSERT_LT(std::chrono::steady_clock::now(), *end) << "the cells behind this one are left out";
    }
    // A thread that has ended for the program may still exist for the system for a moment.
    EXPECT_TRUE(test::eventually([&] {
        const auto now = machine::resourcesOf(test::ownProcessId());
        return now.threads <= before.threads + machine::kResourceNoise &&
               now.handles <= before.handles + machine::kResourceNoise;
    }));
}

}  // namespace
