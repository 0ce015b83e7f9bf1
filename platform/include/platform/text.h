// Wide texts hold UTF-16 units on every host, one unit a character, so that a text has the same length and
// the same bytes on the wire wherever the program runs.
#pragma once

#include <string>
#include <string_view>

namespace platform {

// Bytes that are not UTF-8 become U+FFFD.
std::wstring widen(std::string_view utf8);

// Lone surrogates become U+FFFD.
std::string toUtf8(std::wstring_view text);

// For texts from outside in a log line: UTF-8 in which each control character, and U+2028 and U+2029, which
// end a line too, is shown as an escape such as \x1b. What is broken is replaced as above; backslashes stay.
std::string printable(std::wstring_view text);
std::string printable(std::string_view utf8);

}  // namespace platform
