#include "platform/clock.h"

#include <algorithm>
#include <thread>
#include <utility>
#include <vector>

#include "platform/runtime.h"

namespace platform {

namespace {

double timeScale = 1;
std::function<void(std::chrono::milliseconds)> sleepObserver;

constexpr std::chrono::milliseconds kBetweenLooks{100};

std::chrono::nanoseconds scaled(std::chrono::milliseconds duration) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::duration<double, std::milli>(duration) / timeScale);
}

}  // namespace

void sleepFor(std::chrono::milliseconds duration, std::initializer_list<Event*> wakers) {
    if (duration <= std::chrono::milliseconds::zero()) {
        std::this_thread::yield();
        return;
    }
    if (sleepObserver) sleepObserver(duration);
    std::vector<Event*> events(wakers);
    events.push_back(&stopRequested());
    waitAny(events, scaled(duration));
}

void sleepWhile(const std::function<bool()>& goOn, std::chrono::milliseconds duration) {
    using Clock = std::chrono::steady_clock;
    if (sleepObserver) sleepObserver(duration);
    Event* const events[] = {&stopRequested()};
    const Clock::time_point end = Clock::now() + scaled(duration);
    for (auto left = end - Clock::now(); left > Clock::duration::zero() && goOn();
         left = end - Clock::now()) {
        if (waitAny(events, std::min<std::chrono::nanoseconds>(left, kBetweenLooks))) return;
    }
}

void setTimeScale(double factor) {
    timeScale = std::max(1.0, factor);
}

void setSleepObserver(std::function<void(std::chrono::milliseconds)> observer) {
    sleepObserver = std::move(observer);
}

}  // namespace platform
