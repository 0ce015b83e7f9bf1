// Waits until another thread or another program has done something.
#pragma once

#include <chrono>
#include <thread>

namespace test {

// Polls until the condition holds; false at the deadline.
template <class Condition>
bool eventually(Condition condition, std::chrono::seconds deadline = std::chrono::seconds(20)) {
    for (const auto end = std::chrono::steady_clock::now() + deadline; !condition();) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace test
