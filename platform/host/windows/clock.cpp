#include "platform/clock.h"

#include <windows.h>

#include <array>

namespace platform {

namespace {

FILETIME toFileTime(FileTime time) {
    return {static_cast<DWORD>(time.ticks & 0xFFFFFFFF), static_cast<DWORD>(time.ticks >> 32)};
}

}  // namespace

FileTime toLocalFileTime(FileTime utc) {
    const FILETIME time = toFileTime(utc);
    FILETIME local{};
    if (!::FileTimeToLocalFileTime(&time, &local)) return utc;
    return {static_cast<std::uint64_t>(local.dwHighDateTime) << 32 | local.dwLowDateTime};
}

CalendarTime toCalendarTime(FileTime time) {
    const FILETIME fileTime = toFileTime(time);
    SYSTEMTIME calendar{};
    if (!::FileTimeToSystemTime(&fileTime, &calendar)) return {};
    return {calendar.wYear, calendar.wMonth,  calendar.wDay,
            calendar.wHour, calendar.wMinute, calendar.wSecond};
}

std::wstring formatLongDateAndTime(const CalendarTime& time) {
    const auto word = [](int number) { return static_cast<WORD>(number); };
    const SYSTEMTIME calendar{word(time.year),   word(time.month),  0, word(time.day), word(time.hour),
                              word(time.minute), word(time.second), 0};
    std::array<wchar_t, 256> date{};
    std::array<wchar_t, 256> clock{};
    ::GetDateFormatW(LOCALE_USER_DEFAULT, DATE_LONGDATE, &calendar, nullptr, date.data(), date.size());
    ::GetTimeFormatW(LOCALE_USER_DEFAULT, 0, &calendar, nullptr, clock.data(), clock.size());
    return std::wstring(date.data()) + L' ' + clock.data();
}

}  // namespace platform
