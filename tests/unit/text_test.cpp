#include "platform/text.h"

#include <gtest/gtest.h>

#include "platform/error.h"
#include "platform/guid.h"

namespace platform {
namespace {

// Code points beyond U+FFFF are two units on every host, so the texts cannot be written as wide literals.
std::wstring units(std::initializer_list<int> values) {
    return {values.begin(), values.end()};
}

TEST(Text, Utf8BecomesUtf16UnitsAndBack) {
    constexpr int kInvalid = 0xFFFD;
    const std::pair<std::string, std::wstring> cases[] = {
        {{"a\0\x7F", 3}, units({'a', 0, 0x7F})},
        {"\xC2\x80\xDF\xBF", units({0x80, 0x7FF})},
        {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", units({0x800, 0xD7FF, 0xE000, 0xFFFF})},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", units({0xD800, 0xDC00, 0xDBFF, 0xDFFF})},
        // No lead and overlong; cut short; a surrogate; above U+10FFFF.
        {"\x80z\xC0\xAFz", units({kInvalid, 'z', kInvalid, kInvalid, 'z'})},
        {"\xE2\x82z\xF0\x9F\x98", units({kInvalid, 'z', kInvalid})},
        {"\xED\xA0\x80", units({kInvalid, kInvalid, kInvalid})},
        {"\xF4\x90\x80\x80", units({kInvalid, kInvalid, kInvalid, kInvalid})}};
    for (const auto& [utf8, text] : cases) {
        EXPECT_EQ(widen(utf8), text) << utf8;
        EXPECT_TRUE(text.find(kInvalid) != std::wstring::npos || toUtf8(text) == utf8) << utf8;
    }
    EXPECT_EQ(toUtf8(units({0xDC00, 0xD83D, 0xD83D, 0xDE00, 0xD800})),
              "\xEF\xBF\xBD\xEF\xBF\xBD\xF0\x9F\x98\x80\xEF\xBF\xBD");
}

TEST(Text, ControlCharactersAreShownAsEscapes) {
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"C:\\x1b ok", "C:\\x1b ok"},
        {std::string("a\0b\r\n\t\x1B[2J\x1F\x7F ~", 14), "a\\x00b\\x0d\\x0a\\x09\\x1b[2J\\x1f\\x7f ~"},
        {"\xC2\x80\xC2\x9B\xC2\x9F\xC2\xA0", "\\x80\\x9b\\x9f\xC2\xA0"},
        {"\xE2\x80\xA7\xE2\x80\xA8\xE2\x80\xA9\xE2\x80\xAA", "\xE2\x80\xA7\\u2028\\u2029\xE2\x80\xAA"},
        {"\x9B\xF0\x9F\x98\x80", "\xEF\xBF\xBD\xF0\x9F\x98\x80"},  // a lone byte is no C1 control
    };
    for (const auto& [utf8, shown] : cases) {
        EXPECT_EQ(printable(utf8), shown);
        EXPECT_EQ(printable(widen(utf8)), shown);
    }
}

TEST(Guid, RegistryForm) {
    const Guid mixed{0x01234567, 0x89AB, 0xCDEF, {0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10}};
    EXPECT_EQ(toString(mixed), "{01234567-89AB-CDEF-FEDC-BA9876543210}");
    EXPECT_EQ(parseGuid("01234567-89AB-CDEF-FEDC-BA9876543210"), mixed);
    for (const char* text :
         {"", "{0000FEFB-0000-1000-8000-00805F9B34FB", "0000FEFB-0000-1000-8000-00805F9B34F",
          "0000FEFB-0000-1000-80000-0805F9B34FB", "0000FEFB-0x00-1000-8000-00805F9B34FB"}) {
        EXPECT_EQ(parseGuid(text), std::nullopt) << text;
    }
}

TEST(Error, MessageOfAResultCode) {
    // The wording is the host's: "Access is denied." or a similar one.
    const std::string message = systemMessage(hresult(0x80070005));
    EXPECT_TRUE(message.starts_with("Access ") && message.ends_with("denied.")) << message;
    EXPECT_STREQ(PlatformError(hresult(0x8123ABCD)).what(), "HRESULT 0x8123ABCD");
}

}  // namespace
}  // namespace platform
