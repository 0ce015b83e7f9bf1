#include "cmdpipe_line.h"

#include <cctype>

namespace blescanner {

namespace {
constexpr std::size_t kShownOfTooLong = 256;
}

bool LineAccumulator::add(std::uint8_t byte) {
    if (endsLine(byte)) return true;
    if (text_.size() < kLimit) {
        text_.push_back(static_cast<wchar_t>(byte));
    } else {
        tooLong_ = true;
    }
    return false;
}

std::wstring LineAccumulator::shownText() const {
    if (!tooLong_) return text_;
    return text_.substr(0, kShownOfTooLong) + L"... (line longer than 64 KiB)";
}

void LineAccumulator::lower() {
    for (wchar_t& unit : text_)
        unit = static_cast<wchar_t>(std::tolower(static_cast<int>(unit)));
}

void LineAccumulator::clear() {
    text_.clear();
    tooLong_ = false;
}

}  // namespace blescanner
