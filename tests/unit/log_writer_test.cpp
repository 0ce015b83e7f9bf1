// The log's way to an output that may take nothing for a while.
#include "blescanner/log_writer.h"

#include <gtest/gtest.h>

#include <array>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "tests/unit/support.h"

namespace {

using namespace std::chrono_literals;
using blescanner::LogWriter;

// An output that can be made to block and to fail.
class Output {
  public:
    LogWriter::Output function() {
        return [this](std::string_view lines) { return take(lines); };
    }
    void block(bool on) {
        const std::lock_guard lock(mutex_);
        blocked_ = on;
        changed_.notify_all();
    }
    void failTimes(int times) {
        const std::lock_guard lock(mutex_);
        failures_ = times;
    }
    bool waitUntilItBlocks() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, test::kDeadline, [this] { return blocking_; });
    }
    std::string taken() const {
        const std::lock_guard lock(mutex_);
        return taken_;
    }

  private:
    bool take(std::string_view lines) {
        std::unique_lock lock(mutex_);
        blocking_ = blocked_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return !blocked_; });
        blocking_ = false;
        if (failures_ > 0 && failures_-- > 0) return false;
        taken_ += lines;
        return true;
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    bool blocked_ = false;
    bool blocking_ = false;
    int failures_ = 0;
    std::string taken_;
};

std::string missing(int lines) {
    return "             log_writer:0     WARN| [WARNING] Standard output did not take the log, lines "
           "missing: " +
           std::to_string(lines) + "\n";
}

TEST(LogWriter, KeepsTheLinesOfEachThreadWholeAndInOrder) {
    constexpr int kLines = 2000;
    Output output;
    {
        LogWriter writer(output.function());
        std::array<std::thread, 3> threads;
        for (std::size_t id = 0; id < threads.size(); ++id) {
            threads[id] = std::thread([&writer, id] {
                for (int i = 0; i < kLines; ++i)
                    writer.push(std::to_string(id) + ":" + std::to_string(i) + "\n");
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_TRUE(writer.drain(test::kDeadline));
        writer.push("last\n");
    }
    std::array<int, 3> next{};
    std::istringstream lines(output.taken());
    for (std::string line; std::getline(lines, line) && line != "last";) {
        const auto id = static_cast<std::size_t>(line.at(0) - '0');
        ASSERT_EQ(line, std::to_string(id) + ":" + std::to_string(next.at(id)++));
    }
    EXPECT_EQ(next, (std::array{kLines, kLines, kLines}));
    EXPECT_TRUE(output.taken().ends_with("\nlast\n")) << "what is left at the end is written";
}

// A push that waited would wait for ever here.
TEST(LogWriter, WhileTheOutputBlocksPushesReturnAndWhatHasNoRoomIsCounted) {
    Output output;
    LogWriter writer(output.function(), 30);
    output.block(true);
    writer.push("first\n");
    ASSERT_TRUE(output.waitUntilItBlocks());
    for (const char* line : {"second 901234\n", "third 8901234\n", "too long\n", "x\n", "y\n"})
        writer.push(line);
    EXPECT_FALSE(writer.drain(20ms));
    output.block(false);
    EXPECT_TRUE(writer.drain(test::kDeadline));
    const std::string expected = "first\nsecond 901234\nthird 8901234\n" + missing(3);
    EXPECT_EQ(output.taken(), expected) << "a short line has no room where a longer one had none";

    writer.push("later\n");
    EXPECT_TRUE(writer.drain(test::kDeadline));
    EXPECT_EQ(output.taken(), expected + "later\n");
    writer.push(std::string(31, 'x'));
    EXPECT_TRUE(writer.drain(test::kDeadline));
    EXPECT_EQ(output.taken(), expected + "later\n" + missing(1));
}

TEST(LogWriter, GoesOnAfterAFailedWriteAndTellsWhatIsMissing) {
    Output output;
    LogWriter writer(output.function());
    output.failTimes(2);
    for (const char* line : {"a\n", "b\n", "c\n", "d\n"}) {
        writer.push(line);
        EXPECT_TRUE(writer.drain(test::kDeadline));
    }
    EXPECT_EQ(output.taken(), "c\n" + missing(2) + "d\n");
}

}  // namespace
