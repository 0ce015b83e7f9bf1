// Telling the log of bytes that were lost on their way.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>

namespace blescanner {

// Bytes from the peripheral that the client does not get. The first loss is told at once; a run of them once
// a second, each time with the sum of what was lost since the line before. Threads: any.
class ByteLoss {
  public:
    void add(std::uint64_t bytes) { tell(bytes, std::chrono::seconds(1)); }
    // Tells what is still untold, if the last line is a second ago. Called several times a second.
    void tellDue() { add(0); }
    // Tells what is still untold. At the end of the session.
    void tellRest() { tell(0, std::chrono::seconds(0)); }

  private:
    using Clock = std::chrono::steady_clock;
    void tell(std::uint64_t more, std::chrono::seconds pause);

    std::mutex mutex_;
    std::uint64_t untold_ = 0;
    Clock::time_point told_ = Clock::time_point::min();  // the time of the last line
};

}  // namespace blescanner
