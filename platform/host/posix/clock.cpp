#include "platform/clock.h"

#include <algorithm>
#include <array>
#include <ctime>

#include "platform/text.h"

namespace platform {

namespace {

constexpr std::int64_t kTicksPerSecond = 10'000'000;
// From 1601-01-01 to 1970-01-01.
constexpr std::int64_t kEpochOffsetSeconds = 11'644'473'600;

std::time_t toUnixTime(FileTime time) {
    return static_cast<std::time_t>(time.ticks / kTicksPerSecond) - kEpochOffsetSeconds;
}

}  // namespace

FileTime toLocalFileTime(FileTime utc) {
    const std::time_t instant = toUnixTime(utc);
    std::tm local{};
    if (!::localtime_r(&instant, &local)) return utc;
    const std::int64_t shifted = static_cast<std::int64_t>(utc.ticks) + local.tm_gmtoff * kTicksPerSecond;
    return {static_cast<std::uint64_t>(std::max<std::int64_t>(shifted, 0))};
}

CalendarTime toCalendarTime(FileTime time) {
    const std::time_t instant = toUnixTime(time);
    std::tm calendar{};
    if (!::gmtime_r(&instant, &calendar)) return {};
    return {calendar.tm_year + 1900, calendar.tm_mon + 1, calendar.tm_mday,
            calendar.tm_hour,        calendar.tm_min,     calendar.tm_sec};
}

std::wstring formatLongDateAndTime(const CalendarTime& time) {
    std::tm calendar{};
    calendar.tm_year = time.year - 1900;
    calendar.tm_mon = time.month - 1;
    calendar.tm_mday = time.day;
    calendar.tm_hour = time.hour;
    calendar.tm_min = time.minute;
    calendar.tm_sec = time.second;
    ::timegm(&calendar);  // fills in the day of the week
    std::array<char, 128> text{};
    std::strftime(text.data(), text.size(), "%A, %B %d, %Y %X", &calendar);
    return widen(text.data());
}

}  // namespace platform
