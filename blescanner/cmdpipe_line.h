// Assembles command lines from the bytes that a client sends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace blescanner {

// One per client; used by the shell thread only. A carriage return or a line feed completes a line, so that a
// line that ends in both is followed by an empty one. A line without an end does not grow memory: beyond the
// limit only the fact that it was too long is kept.
class LineAccumulator {
  public:
    static constexpr std::size_t kLimit = 64 * 1024;  // characters

    // Takes one byte; true when it completed a line.
    bool add(std::uint8_t byte);

    // Of the completed line:
    bool tooLong() const { return tooLong_; }
    const std::wstring& text() const { return text_; }
    // For the log: the beginning only where the line was too long.
    std::wstring shownText() const;

    void lower();
    void clear();

  private:
    std::wstring text_;
    bool tooLong_ = false;
};

}  // namespace blescanner
