// Time: fixed sleeps, polls and the conversion of file times.
//
// Threads: everything here may be called from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>

#include "platform/event.h"

namespace platform {

// Blocks the caller for the duration; zero only yields the processor. Every fixed sleep and poll of the
// program goes through here. Ends early once the program was asked to stop (runtime.h, stopRequested) or one
// of the events is signalled. Resets none of them.
void sleepFor(std::chrono::milliseconds duration, std::initializer_list<Event*> wakers = {});

// The same, but ends early when `goOn` says no. It is asked on this thread, ten times a second.
void sleepWhile(const std::function<bool()>& goOn, std::chrono::milliseconds duration);

// Fixed sleeps run this many times faster (1 or more). Time-outs of waits are not scaled: they guard against
// peers, whose speed does not change. Set at start-up, before other threads exist.
void setTimeScale(double factor);

// Test support: called with every non-zero duration, unscaled, before the sleep, on the sleeping thread.
// An empty function ends the recording. Set it while no other thread sleeps.
void setSleepObserver(std::function<void(std::chrono::milliseconds)> observer);

// 100-nanosecond intervals since 1601-01-01 00:00.
struct FileTime {
    std::uint64_t ticks = 0;
    auto operator<=>(const FileTime&) const = default;
};

// The same instant read off a local clock: shifted by the host's offset from UTC that holds at this time of
// year (Windows: by the one that holds now).
FileTime toLocalFileTime(FileTime utc);

struct CalendarTime {
    int year = 0;
    int month = 0;  // 1 to 12
    int day = 0;    // 1 to 31
    int hour = 0;
    int minute = 0;
    int second = 0;
};

CalendarTime toCalendarTime(FileTime time);

// The long date, one blank and the time, in the form of the user's locale (POSIX: the C locale).
std::wstring formatLongDateAndTime(const CalendarTime& time);

}  // namespace platform
