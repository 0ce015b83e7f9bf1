#include "platform/clock.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace platform {
namespace {

constexpr std::uint64_t kTicksPerHour = 36'000'000'000;
constexpr FileTime kMay2016{131'065'344'000'000'000};  // 2016-05-01 00:00

TEST(HostClock, LocalTimeFollowsTheSeason) {
    ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    ::tzset();
    EXPECT_EQ(toLocalFileTime(kMay2016), FileTime{kMay2016.ticks + 2 * kTicksPerHour});
    constexpr FileTime january2016{130'960'800'000'000'000};  // 2016-01-01 00:00
    EXPECT_EQ(toLocalFileTime(january2016), FileTime{january2016.ticks + kTicksPerHour});
    ::setenv("TZ", "EST5", 1);
    ::tzset();
    EXPECT_EQ(toLocalFileTime(FileTime{0}), FileTime{0}) << "must not wrap";
    ::unsetenv("TZ");
    ::tzset();
}

TEST(HostClock, CalendarAndLongText) {
    const auto text = [](std::uint64_t ticks) { return formatLongDateAndTime(toCalendarTime({ticks})); };
    EXPECT_EQ(text(0), L"Monday, January 01, 1601 00:00:00");
    EXPECT_EQ(text(125'962'559'999'999'999), L"Monday, February 28, 2000 23:59:59");
    EXPECT_EQ(text(125'962'560'000'000'000), L"Tuesday, February 29, 2000 00:00:00");
    EXPECT_EQ(text(kMay2016.ticks + 15 * kTicksPerHour), L"Sunday, May 01, 2016 15:00:00");
}

}  // namespace
}  // namespace platform
