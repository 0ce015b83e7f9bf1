// Connection intervals: so many packets in each, on a fixed grid.
#pragma once

#include <chrono>
#include <cstdint>

#include "scenario.h"

namespace sim {

// One direction of one connection. Not thread-safe.
class Pacer {
  public:
    using Clock = std::chrono::steady_clock;

    Pacer() = default;
    Pacer(const LinkScenario& link, Clock::time_point start)
        : interval_(link.interval), packets_(link.packetsPerInterval), start_(start) {}

    bool paced() const { return packets_ != 0; }

    // Takes a packet's place in the running interval; false when it is full.
    bool take() {
        if (!paced()) return true;
        const auto running = (Clock::now() - start_) / interval_;
        if (running != index_) {
            index_ = running;
            taken_ = 0;
        }
        if (taken_ == packets_) return false;
        ++taken_;
        return true;
    }

    // When the interval that take() last looked at is over.
    Clock::time_point nextInterval() const { return start_ + (index_ + 1) * interval_; }

  private:
    Clock::duration interval_{0};
    std::uint32_t packets_ = 0;
    Clock::time_point start_;
    Clock::rep index_ = 0;
    std::uint32_t taken_ = 0;
};

}  // namespace sim
