#include "platform/text.h"

#include <cstddef>
#include <cstdio>

namespace platform {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool isHighSurrogate(char32_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}
bool isLowSurrogate(char32_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

// What a lead byte announces: how many bytes follow, and which values the first of them may have (the limits
// rule out overlong forms, surrogates and code points above U+10FFFF).
struct Lead {
    std::size_t following;
    unsigned char low;
    unsigned char high;
};

Lead classify(unsigned char byte) {
    if (byte >= 0xC2 && byte <= 0xDF) return {1, 0x80, 0xBF};
    if (byte == 0xE0) return {2, 0xA0, 0xBF};
    if (byte == 0xED) return {2, 0x80, 0x9F};
    if (byte >= 0xE1 && byte <= 0xEF) return {2, 0x80, 0xBF};
    if (byte == 0xF0) return {3, 0x90, 0xBF};
    if (byte >= 0xF1 && byte <= 0xF3) return {3, 0x80, 0xBF};
    if (byte == 0xF4) return {3, 0x80, 0x8F};
    return {0, 0, 0};
}

// Takes one code point off the front. Of a broken sequence it takes the part that could have been its
// beginning.
char32_t takeCodePoint(std::string_view& utf8) {
    const auto first = static_cast<unsigned char>(utf8.front());
    utf8.remove_prefix(1);
    if (first < 0x80) return first;

    auto [following, low, high] = classify(first);
    if (following == 0) return kReplacement;
    char32_t codePoint = first & (0x3Fu >> following);
    for (; following > 0; --following, low = 0x80, high = 0xBF) {
        if (utf8.empty()) return kReplacement;
        const auto next = static_cast<unsigned char>(utf8.front());
        if (next < low || next > high) return kReplacement;
        codePoint = (codePoint << 6) | (next & 0x3Fu);
        utf8.remove_prefix(1);
    }
    return codePoint;
}

char32_t takeCodePoint(std::wstring_view& text) {
    const auto first = static_cast<char32_t>(text.front());
    text.remove_prefix(1);
    if (isHighSurrogate(first) && !text.empty() && isLowSurrogate(static_cast<char32_t>(text.front()))) {
        const auto second = static_cast<char32_t>(text.front());
        text.remove_prefix(1);
        return 0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00);
    }
    const bool valid = !isHighSurrogate(first) && !isLowSurrogate(first) && first <= 0x10FFFF;
    return valid ? first : kReplacement;
}

void appendUtf16(std::wstring& text, char32_t codePoint) {
    if (codePoint < 0x10000) {
        text += static_cast<wchar_t>(codePoint);
        return;
    }
    text += static_cast<wchar_t>(0xD800 + ((codePoint - 0x10000) >> 10));
    text += static_cast<wchar_t>(0xDC00 + ((codePoint - 0x10000) & 0x3FF));
}

void appendUtf8(std::string& text, char32_t codePoint) {
    if (codePoint < 0x80) {
        text += static_cast<char>(codePoint);
        return;
    }
    const unsigned following = codePoint < 0x800 ? 1 : codePoint < 0x10000 ? 2 : 3;
    text += static_cast<char>(((0xFF00u >> (following + 1)) & 0xFFu) | (codePoint >> (6 * following)));
    for (unsigned left = following; left-- > 0;) {
        text += static_cast<char>(0x80 | ((codePoint >> (6 * left)) & 0x3F));
    }
}

// The two separators end a line on some terminals and in some editors.
bool isControl(char32_t codePoint) {
    return codePoint < 0x20 || (codePoint >= 0x7F && codePoint < 0xA0) || codePoint == 0x2028 ||
           codePoint == 0x2029;
}

void appendEscape(std::string& text, char32_t control) {
    char escape[8];
    std::snprintf(escape, sizeof escape, control < 0x100 ? "\\x%02x" : "\\u%04x",
                  static_cast<unsigned>(control & 0xFFFF));
    text += escape;
}

}  // namespace

std::wstring widen(std::string_view utf8) {
    std::wstring text;
    text.reserve(utf8.size());
    while (!utf8.empty())
        appendUtf16(text, takeCodePoint(utf8));
    return text;
}

std::string toUtf8(std::wstring_view text) {
    std::string utf8;
    utf8.reserve(text.size());
    while (!text.empty())
        appendUtf8(utf8, takeCodePoint(text));
    return utf8;
}

std::string printable(std::wstring_view text) {
    std::string utf8;
    utf8.reserve(text.size());
    while (!text.empty()) {
        const char32_t codePoint = takeCodePoint(text);
        isControl(codePoint) ? appendEscape(utf8, codePoint) : appendUtf8(utf8, codePoint);
    }
    return utf8;
}

std::string printable(std::string_view utf8) {
    return printable(widen(utf8));
}

}  // namespace platform
