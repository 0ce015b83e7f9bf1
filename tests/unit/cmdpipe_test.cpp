// Line assembly, and the lines that the link sends to the client.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "blescanner/byte_loss.h"
#include "blescanner/cmdpipe_line.h"
#include "blescanner/cmdpipe_notification.h"
#include "log_capture.h"

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
    notification.post(L"lost");
    notification.open();
    EXPECT_FALSE(notification.event().isSet());
    notification.post(L"one");
    notification.post(L"two");
    EXPECT_EQ(notification.take(), L"one");
    EXPECT_TRUE(notification.event().isSet());
    EXPECT_EQ(notification.take(), L"two");
    EXPECT_FALSE(notification.event().isSet());
    EXPECT_FALSE(notification.take());
    notification.post(L"stale");
    notification.close();
    notification.open();
    EXPECT_FALSE(notification.take());
}

TEST(ByteLoss, TellsTheFirstOneAtOnceAndALongRunOnceASecond) {
    test::LogCapture log;
    blescanner::ByteLoss loss;
    loss.add(20);
    EXPECT_TRUE(log.find("Data pipe: 20 bytes for the client given up"));
    const auto start = std::chrono::steady_clock::now();
    for (int packet = 0; packet < 20'000; ++packet)
        loss.add(3);
    loss.tellRest();
    loss.tellRest();
    const auto seconds = std::chrono::ceil<std::chrono::seconds>(std::chrono::steady_clock::now() - start);
    const auto texts = log.texts();
    EXPECT_LE(texts.size(), 2U + static_cast<std::size_t>(seconds.count()));
    long told = 0;
    for (const std::string& text : texts)
        told += std::stol(text.substr(std::string("Data pipe: ").size()));
    EXPECT_EQ(told, 20 + 3 * 20'000);
}

}  // namespace
