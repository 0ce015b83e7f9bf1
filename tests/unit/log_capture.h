// Collects the program's log lines while it lives.
#pragma once

#include <algorithm>
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
    LogCapture() { loguru::add_callback(id_.c_str(), &LogCapture::collect, this, loguru::Verbosity_MAX); }
    ~LogCapture() { loguru::remove_callback(id_.c_str()); }

    std::vector<LogLine> lines() const {
        const std::lock_guard guard(mutex_);
        return lines_;
    }
    std::vector<std::string> texts() const {
        std::vector<std::string> result;
        for (const auto& line : lines())
            result.push_back(line.text);
        return result;
    }
    // How many lines hold this text.
    std::ptrdiff_t count(std::string_view part) const {
        const auto all = texts();
        return std::count_if(all.begin(), all.end(),
                             [&](const auto& text) { return text.find(part) != std::string::npos; });
    }
    // The first line that holds this text.
    std::optional<LogLine> find(std::string_view part) const {
        for (const auto& line : lines())
            if (line.text.find(part) != std::string::npos) return line;
        return std::nullopt;
    }

  private:
    static void collect(void* self, const loguru::Message& message) {
        auto& capture = *static_cast<LogCapture*>(self);
        const std::lock_guard guard(capture.mutex_);
        capture.lines_.push_back({message.verbosity, message.message});
    }

    const std::string id_ = "capture-" + std::to_string(reinterpret_cast<std::uintptr_t>(this));
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
};

}  // namespace test
