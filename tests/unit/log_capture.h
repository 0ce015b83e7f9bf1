// Collects the program's log lines while it lives.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <loguru.hpp>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace test {

// Threads: any. Several may exist at a time; each gets every line.
class LogCapture {
  public:
    LogCapture() { loguru::add_callback(id_.c_str(), &LogCapture::collect, this, loguru::Verbosity_MAX); }
    ~LogCapture() { loguru::remove_callback(id_.c_str()); }

    std::vector<std::string> texts() const {
        const std::lock_guard guard(mutex_);
        return texts_;
    }
    // How many lines contain this text.
    std::ptrdiff_t count(std::string_view part) const {
        const auto all = texts();
        return std::count_if(all.begin(), all.end(),
                             [&](const auto& text) { return text.find(part) != std::string::npos; });
    }
    bool find(std::string_view part) const { return count(part) > 0; }
    // The warnings and errors, as "WARNING: text" and "ERROR: text".
    std::vector<std::string> troubles() const {
        const std::lock_guard guard(mutex_);
        return troubles_;
    }

  private:
    static void collect(void* self, const loguru::Message& message) {
        auto& capture = *static_cast<LogCapture*>(self);
        const std::lock_guard guard(capture.mutex_);
        capture.texts_.emplace_back(message.message);
        if (message.verbosity > loguru::Verbosity_WARNING) return;
        const bool warning = message.verbosity == loguru::Verbosity_WARNING;
        capture.troubles_.push_back((warning ? "WARNING: " : "ERROR: ") + capture.texts_.back());
    }

    const std::string id_ = "capture-" + std::to_string(reinterpret_cast<std::uintptr_t>(this));
    mutable std::mutex mutex_;
    std::vector<std::string> texts_, troubles_;
};

}  // namespace test
