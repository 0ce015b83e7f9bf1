// Assembles command lines from the bytes that a client sends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace blescanner {

// One for each client. Shell thread only. A carriage return or a line feed completes a line, so a line that
// ends in both is followed by an empty line. Characters beyond the limit are dropped, and the line is marked
// as too long.
class LineAccumulator {
  public:
    static constexpr std::size_t kLimit = 64 * 1024;  // characters

    static bool endsLine(std::uint8_t byte) { return byte == '\r' || byte == '\n'; }

    // Takes one byte; true when it completed a line.
    bool add(std::uint8_t byte);

    // Of the completed line:
    bool tooLong() const { return tooLong_; }
    const std::wstring& text() const { return text_; }
    // For the log. Of a line that was too long only the beginning.
    std::wstring shownText() const;

    void lower();
    void clear();

  private:
    std::wstring text_;
    bool tooLong_ = false;
};

}  // namespace blescanner
