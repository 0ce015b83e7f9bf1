// Telling the log of bytes that were lost on their way.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>

namespace blescanner {

// Bytes from the peripheral that the client does not get. The first loss is told at once; a run of them once
// a second, each time with the sum of what was lost since the line before.
//
// Threads: any.
class ByteLoss {
  public:
    void add(std::size_t bytes);
    // Tells what is still untold. At the end of the session.
    void tellRest();

  private:
    using Clock = std::chrono::steady_clock;

    std::mutex mutex_;
    std::uint64_t untold_ = 0;
    std::optional<Clock::time_point> told_;  // the time of the last line
};

}  // namespace blescanner
