// Bluetooth addresses as texts. An address is a number of 48 bits; the first byte of the text is its highest.
//
// Threads: any.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

// Takes six hexadecimal fields with colons between them, and nothing behind them. A field is read as scanf's
// %hhx reads a number: "1:2:3:4:5:6" is an address, and so are fields with blanks, a sign or "0x" in front.
std::optional<std::uint64_t> parseAddress(std::string_view text);

enum class LetterCase { lower, upper };

// The low 48 bits in two-digit fields: "00:1a:7d:da:71:13".
std::string formatAddress(std::uint64_t address, LetterCase letters = LetterCase::lower);

}  // namespace platform
