#include "log_writer.h"

#include <utility>

namespace blescanner {

// A transfer logs two lines a block. After so many writes with hardly a pause between them the writer rests
// after each write, so that not every line wakes it.
constexpr int kBusyWrites = 32;
constexpr std::chrono::milliseconds kRest{1};

void LogWriter::push(std::string_view line) {
    {
        const std::lock_guard lock(mutex_);
        // After the first that is dropped all are, so that the missing ones are in one place.
        if (dropped_ > 0 || queue_.size() + line.size() > capacity_) {
            ++dropped_;
        } else {
            queue_ += line;
            ++lines_;
        }
    }
    pushed_.notify_one();
}

bool LogWriter::drain(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return drained_.wait_for(lock, timeout, [this] { return lines_ + dropped_ == 0 && !writing_; });
}

// The line that tells of missing ones is in the columns of the log, but not the logging library's: only this
// output lacks them.
void LogWriter::run(const std::stop_token& stop) {
    using Clock = std::chrono::steady_clock;
    std::string batch;
    std::size_t missing = 0;  // not told yet
    int busyWrites = 0;
    std::unique_lock lock(mutex_);
    for (auto idleFrom = Clock::now(); pushed_.wait(lock, stop, [this] { return lines_ + dropped_ > 0; });
         idleFrom = Clock::now()) {
        busyWrites = Clock::now() - idleFrom < kRest ? busyWrites + 1 : 0;
        batch.clear();
        batch.swap(queue_);
        const std::size_t lines = std::exchange(lines_, 0);
        missing += std::exchange(dropped_, 0);
        writing_ = true;
        lock.unlock();
        if (missing > 0) {
            batch += "             log_writer:0     WARN| [WARNING] Standard output did not take the log, ";
            batch += "lines missing: " + std::to_string(missing) + '\n';
        }
        missing = output_(batch) ? 0 : missing + lines;
        lock.lock();
        writing_ = false;
        drained_.notify_all();
        if (busyWrites < kBusyWrites) continue;
        lock.unlock();
        std::this_thread::sleep_for(kRest);
        lock.lock();
    }
}

}  // namespace blescanner
