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

}  // namespace

void sleepFor(std::chrono::milliseconds duration, std::initializer_list<Event*> wakers) {
    if (duration <= std::chrono::milliseconds::zero()) {
        std::this_thread::yield();
        return;
    }
    if (sleepObserver) sleepObserver(duration);
    std::vector<Event*> events(wakers);
    events.push_back(&stopRequested());
    const auto scaled = std::chrono::duration<double, std::milli>(duration) / timeScale;
    waitAny(events, std::chrono::duration_cast<std::chrono::nanoseconds>(scaled));
}

void setTimeScale(double factor) {
    timeScale = std::max(1.0, factor);
}

void setSleepObserver(std::function<void(std::chrono::milliseconds)> observer) {
    sleepObserver = std::move(observer);
}

}  // namespace platform
