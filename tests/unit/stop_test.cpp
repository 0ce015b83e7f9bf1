// A link session that is stopped, at every step of its set-up: what the client, the peripheral and the radio
// see of it from then on, and that the next session comes up.
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>

#include "tests/eventually.h"
#include "tests/unit/link_fixture.h"

namespace {

using namespace std::chrono_literals;
using test::eventually;

constexpr const wchar_t* kHealthyAddress = L" 00:00:00:00:00:02";

const char* const kNewer = R"("os_version": [10, 0, 15063])";
const char* const kOlder = R"("os_version": [10, 0, 15062])";

// The first peripheral is as described, the second one is healthy. Without an MTU no other thread calls the
// first one.
std::string scenario(const char* generation, const std::string& first) {
    return std::string("{") + generation +
           R"(, "peripherals": [{"characteristics": ["TX", "RX", "CRTX", "CRRX"])" +
           (first.empty() ? "" : ", ") + first + R"(}, {"address": "00:00:00:00:00:02"}]})";
}

// From the stop on: no line, no call to the peripheral, no radio but one that is switched on again.
struct SeenAtStop {
    explicit SeenAtStop(test::Link& link)
        : calls(link.peripheral().hostCalls()), radioRequests(link.world().radioRequests.all().size()) {}

    std::uint64_t calls;
    std::size_t radioRequests;
};

void expectQuiet(test::Link& link, const SeenAtStop& seen) {
    EXPECT_EQ(link.line(1ms), "");
    EXPECT_EQ(link.peripheral().hostCalls(), seen.calls);
    const auto requests = link.world().radioRequests.all();
    const std::vector<platform::RadioState> since(requests.begin() + seen.radioRequests, requests.end());
    const bool leftOff =
        seen.radioRequests > 0 && requests[seen.radioRequests - 1] == platform::RadioState::off;
    EXPECT_EQ(since, std::vector<platform::RadioState>(leftOff ? 1 : 0, platform::RadioState::on));
}

void expectNextSessionWorks(test::Link& link) {
    link.connect(kHealthyAddress);
    ASSERT_EQ(link.line(), "CONNECT TIO");
    auto data = link.openData();
    data.send("mine");
    EXPECT_EQ(data.readBytes(4), "mine");
}

// Stops the session at its n-th prescribed sleep, from inside the sleep. False: it has no such sleep.
bool playStopAtSleep(const std::string& json, int wanted) {
    test::Link link(json);
    int sleeps = 0;
    std::optional<SeenAtStop> seen;  // the session's thread sets it before `stopped`
    std::atomic<bool> stopped = false;
    const auto shell = std::this_thread::get_id();
    platform::setSleepObserver([&](std::chrono::milliseconds) {
        if (std::this_thread::get_id() == shell || stopped || ++sleeps != wanted) return;
        link.stop();
        seen.emplace(link);
        stopped = true;
    });
    link.connect();
    const bool reached = eventually([&] { return stopped || !link.line(1ms).empty(); }) && stopped;
    if (reached) {
        EXPECT_TRUE(link.ended());
        expectQuiet(link, *seen);
    }
    link.stop();
    EXPECT_TRUE(link.ended());
    platform::setSleepObserver({});
    if (reached) expectNextSessionWorks(link);
    return reached;
}

TEST(StoppedSession, IsQuietFromEachOfItsSleepsOn) {
    struct Case {
        const char* generation;
        const char* first;
        int sleeps;
    };
    const std::string missing = R"("services": [], "cached_services": [], "uncached_services": [])";
    const Case cases[] = {
        {kNewer, "", 5},
        {kOlder, "", 4},
        {kNewer, R"("faults": [{"on": "device", "times": 2, "do": "null"}])", 1},
        {kNewer, R"("appears_after_listing": true)", 7},
        // With the radio's reset.
        {kNewer, missing.c_str(), 3 + 1 + 11},
        {kOlder, missing.c_str(), 1 + 1 + 11},
    };
    for (const Case& item : cases) {
        int reached = 0;
        for (; playStopAtSleep(scenario(item.generation, item.first), reached + 1); ++reached) {
            SCOPED_TRACE(std::string(item.generation) + item.first + " sleep " + std::to_string(reached + 1));
            ASSERT_LE(reached, item.sleeps);
        }
        EXPECT_EQ(reached, item.sleeps) << item.generation << item.first;
    }
}

TEST(StoppedSession, TakesBackALineThatWasNotDeliveredYet) {
    struct Case {
        const char* first;
        const wchar_t* address;
    };
    const Case cases[] = {
        {"", test::kAddress},                                                          // CONNECT TIO
        {R"("services": ["180F"])", L" nonsense"},                                     // ERROR TIO
        {R"("faults": [{"on": "device", "do": "throw:0x80004005"}])", test::kAddress}  // ERROR EXP
    };
    for (const Case& item : cases) {
        SCOPED_TRACE(item.first);
        test::Link link(scenario(kNewer, item.first));
        link.connect(item.address);
        ASSERT_TRUE(eventually([] { return blescanner::linkNotification().event().isSet(); }));
        link.stop();
        EXPECT_EQ(link.line(1ms), "");
        expectNextSessionWorks(link);
    }
}

}  // namespace
