// Line assembly, and the lines that the link sends to the client.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "blescanner/cmdpipe_line.h"
#include "blescanner/cmdpipe_notification.h"
#include "blescanner/lecomm.h"

namespace {

using blescanner::LineAccumulator;

std::vector<std::wstring> lines(std::string_view bytes) {
    std::vector<std::wstring> found;
    LineAccumulator line;
    for (const char byte : bytes) {
        if (!line.add(static_cast<std::uint8_t>(byte))) continue;
        line.lower();
        found.push_back(line.tooLong() ? L"too long" : line.text());
        line.clear();
    }
    return found;
}

TEST(LineAccumulator, CutsAtEitherLineEndAndLowers) {
    using Lines = std::vector<std::wstring>;
    EXPECT_EQ(lines("QUIT\r\nstats\n"), (Lines{L"quit", L"", L"stats"}));
    EXPECT_EQ(lines("no end"), Lines{});
    EXPECT_EQ(lines(std::string("a\0\xC4\n", 4)), (Lines{std::wstring(L"a\0\xC4", 3)}));
    EXPECT_EQ(lines(std::string(LineAccumulator::kLimit, 'x') + "\n"),
              Lines{std::wstring(LineAccumulator::kLimit, L'x')});
    EXPECT_EQ(lines(std::string(LineAccumulator::kLimit + 1, 'x') + "\nstats\n"),
              (Lines{L"too long", L"stats"}));
}

TEST(LinkNotification, KeepsEveryLineInOrderWhileAClientIsThere) {
    blescanner::LinkNotification notification;
    const auto session = std::make_shared<blescanner::TioContext>();
    notification.post({L"lost", session});
    notification.open();
    EXPECT_FALSE(notification.event().isSet());
    notification.post({L"one", session});
    notification.post({L"two", session});
    EXPECT_EQ(notification.take()->text, L"one");
    EXPECT_TRUE(notification.event().isSet());
    EXPECT_EQ(notification.take()->text, L"two");
    EXPECT_FALSE(notification.event().isSet());
    EXPECT_FALSE(notification.take());
    notification.post({L"stale", session});
    notification.close();
    notification.open();
    EXPECT_FALSE(notification.take());
}

}  // namespace
