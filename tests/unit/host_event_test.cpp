#include "platform/event.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "tests/unit/support.h"

namespace platform {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(HostEvent, LowestSignalledEventIsReportedAndStaysSet) {
    Event a, b, c;
    const std::array events{&a, &b, &c};
    EXPECT_EQ(waitAny(events, milliseconds(1)), std::nullopt);
    c.set();
    b.set();
    EXPECT_EQ(waitAny(events, milliseconds(0)), 1u);
    b.reset();
    EXPECT_EQ(waitAny(events, std::chrono::nanoseconds::max()), 2u);
}

// Each signal is set just when the wait begins. A lost wake-up shows as a time-out.
TEST(HostEvent, NoWakeUpIsLost) {
    constexpr int kRounds = 20'000;
    Event event;
    std::atomic<int> round{0};
    std::thread setter([&] {
        for (int i = 1; i <= kRounds; ++i) {
            while (round < i)
                std::this_thread::yield();
            event.set();
        }
    });
    for (int i = 1; i <= kRounds; ++i) {
        round = i;
        EXPECT_EQ(waitAny(std::array{&event}, seconds(5)), 0u) << "in round " << i;
        event.reset();
    }
    setter.join();

    // A wake-up that is left over from an earlier round must not make the wait spin.
    const auto begin = test::ownProcessorTime();
    EXPECT_EQ(waitAny(std::array{&event}, milliseconds(100)), std::nullopt);
    EXPECT_LT(test::ownProcessorTime() - begin, milliseconds(50));
}

TEST(HostEvent, WakesEveryWaiterOfAnEventThatIsNeverReset) {
    Event stop;
    std::atomic<int> woken{0};
    std::array<std::thread, 4> waiters;
    for (std::thread& waiter : waiters) {
        waiter = std::thread([&] { woken += waitAny(std::array{&stop}, seconds(20)) == 0u; });
    }
    stop.set();
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(woken, 4);
}

TEST(HostClock, ASleepEndsWithOneOfItsEventsAndIsRecordedInFull) {
    Event other, waker;
    std::vector<milliseconds> recorded;
    setSleepObserver([&](milliseconds duration) { recorded.push_back(duration); });
    const auto begin = std::chrono::steady_clock::now();
    std::thread setter([&] { waker.set(); });
    sleepFor(test::kDeadline, {&other, &waker});
    setter.join();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, test::kDeadline / 2);
    EXPECT_TRUE(waker.isSet());

    waker.reset();
    setTimeScale(1000);
    sleepFor(test::kDeadline, {&other, &waker});
    setTimeScale(1);
    setSleepObserver({});
    EXPECT_EQ(recorded, std::vector<milliseconds>(2, test::kDeadline));
}

}  // namespace
}  // namespace platform
