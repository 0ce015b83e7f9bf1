// Collects the program's log lines while it lives.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <loguru.hpp>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace test {

struct LogLine {
    int verbosity = 0;
    std::string text;
    bool operator==(const LogLine&) const = default;
};

// Every call from any thread. Several may live at a time; each sees every line.
class LogCapture {
  public:
    LogCapture() : id_("capture-" + std::to_string(reinterpret_cast<std::uintptr_t>(this))) {
        loguru::add_callback(id_.c_str(), &LogCapture::collect, this, loguru::Verbosity_MAX);
    }
    ~LogCapture() { loguru::remove_callback(id_.c_str()); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> lines() const {
        const std::lock_guard guard(mutex_);
        return lines_;
    }

    std::vector<std::string> texts() const {
        std::vector<std::string> result;
        for (auto& line : lines())
            result.push_back(std::move(line.text));
        return result;
    }

    // How many lines are exactly this text.
    std::ptrdiff_t count(std::string_view text) const {
        const std::lock_guard guard(mutex_);
        return std::count_if(lines_.begin(), lines_.end(),
                             [&](const auto& line) { return line.text == text; });
    }

    // How many lines hold this text.
    std::ptrdiff_t countContaining(std::string_view part) const {
        const std::lock_guard guard(mutex_);
        return std::count_if(lines_.begin(), lines_.end(),
                             [&](const auto& line) { return holds(line, part); });
    }

    // The first line that holds this text.
    std::optional<LogLine> find(std::string_view part) const {
        const std::lock_guard guard(mutex_);
        return findLocked(part);
    }

    // The same, waiting for it; nothing when it has not come in time.
    std::optional<LogLine> waitFor(std::string_view part,
                                   std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
        std::unique_lock lock(mutex_);
        added_.wait_for(lock, timeout, [&] { return findLocked(part).has_value(); });
        return findLocked(part);
    }

    void clear() {
        const std::lock_guard guard(mutex_);
        lines_.clear();
    }

  private:
    static bool holds(const LogLine& line, std::string_view part) {
        return line.text.find(part) != std::string::npos;
    }

    static void collect(void* self, const loguru::Message& message) {
        auto& capture = *static_cast<LogCapture*>(self);
        const std::lock_guard guard(capture.mutex_);
        capture.lines_.push_back({message.verbosity, message.message});
        capture.added_.notify_all();
    }

    std::optional<LogLine> findLocked(std::string_view part) const {
        const auto found =
            std::find_if(lines_.begin(), lines_.end(), [&](const auto& line) { return holds(line, part); });
        if (found == lines_.end()) return std::nullopt;
        return *found;
    }

    const std::string id_;
    mutable std::mutex mutex_;
    mutable std::condition_variable added_;
    std::vector<LogLine> lines_;
};

}  // namespace test
