// Output by a thread of its own, so that a reader that takes nothing, such as a paused terminal or a full
// pipe, holds up nobody who logs.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace blescanner {

// Any thread. The destructor waits until all is written.
class LogWriter {
  public:
    // Gets whole lines, in order, on the writer's thread and without a lock; may block. False: not written.
    using Output = std::function<bool(std::string_view lines)>;

    // `capacity`: how many bytes may wait while the output blocks.
    explicit LogWriter(Output output, std::size_t capacity = 1 << 20)
        : output_(std::move(output)), capacity_(capacity) {}

    // Never waits for the output. Lines that find no room are dropped; a line in their place tells how many.
    void push(std::string_view line);

    // True once all that was pushed is written, false when the time was over before.
    bool drain(std::chrono::milliseconds timeout);

  private:
    void run(const std::stop_token& stop);

    const Output output_;
    const std::size_t capacity_;
    std::mutex mutex_;  // for all below
    std::condition_variable_any pushed_;
    std::condition_variable drained_;
    std::string queue_;
    std::size_t lines_ = 0;    // in the queue
    std::size_t dropped_ = 0;  // after them
    bool writing_ = false;
    std::jthread thread_{[this](const std::stop_token& stop) { run(stop); }};  // last: it uses the others
};

}  // namespace blescanner
