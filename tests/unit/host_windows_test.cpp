// The host on Windows: named pipes, clock, messages.
#include <windows.h>

#include <thread>
#include <tuple>

#include "platform/clock.h"
#include "platform/runtime.h"
#include "tests/unit/host_pipe_fixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using test::PipeClient;
using enum SystemError;

SystemError code(DWORD error) {
    return static_cast<SystemError>(error);
}

TEST_F(HostPipe, IsMadeWithTheParametersThatClientsRelyOn) {
    open();
    EXPECT_EQ(create().error, code(ERROR_PIPE_BUSY)) << "one instance";
    const HANDLE client =
        ::CreateFileW(path_.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(client, INVALID_HANDLE_VALUE);
    DWORD flags = 0, out = 0, in = 0, instances = 0;
    EXPECT_TRUE(::GetNamedPipeInfo(client, &flags, &out, &in, &instances));
    EXPECT_EQ(std::tuple(flags, out, in, instances), std::tuple(DWORD{PIPE_TYPE_BYTE}, 4096U, 4096U, 1U));
    ::CloseHandle(client);
    EXPECT_EQ(Pipe::create(L"not a pipe's name").pipe, nullptr);
}

TEST_F(HostPipe, TheDoubledNameIsThePlainOne) {
    const std::wstring name = path_.filename().wstring();
    const auto doubled = Pipe::create(LR"(\\.\\pipe\)" + name);
    ASSERT_TRUE(doubled.pipe) << number(doubled.error);
    newClient();
}

TEST_F(HostPipe, FlushDoesNotWaitForEverAndStillLessWhenTheProgramEnds) {
    const auto flushUnread = [this] {
        const PipeClient client = openWithClient();
        EXPECT_EQ(pipe_->startWrite(request_, buffer_).error, none);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_FALSE(pipe_->flush(std::chrono::seconds(5)));
        const auto taken = std::chrono::steady_clock::now() - begin;
        EXPECT_EQ(pipe_->startWrite(request_, buffer_).error, code(ERROR_PIPE_NOT_CONNECTED));
        return taken;
    };
    // The program's end is for good, so it is played in a process of its own.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto flushAtEnd = [&] {
        requestStop();
        const auto taken = flushUnread();
        endProcess(!HasFailure() && taken >= 900ms && taken < 4s ? 0 : 1);
    };
    EXPECT_EXIT(flushAtEnd(), testing::ExitedWithCode(0), "");
    const auto patient = flushUnread();
    EXPECT_TRUE(patient >= 5s && patient < 8s) << patient.count();
}

TEST(HostClock, LongDateAndTime) {
    const CalendarTime noon = toCalendarTime({131'065'776'000'000'000});
    EXPECT_EQ(std::tuple(noon.year, noon.month, noon.day, noon.hour), std::tuple(2016, 5, 1, 12));
    const std::wstring text = formatLongDateAndTime(noon);
    EXPECT_NE(text.find(L"2016 12:00:00"), std::wstring::npos) << "in English: the year ends the date";
}

TEST(HostError, MessagesAreOneLine) {
    const std::string message = systemMessage(kECancelled);
    EXPECT_FALSE(message.empty());
    EXPECT_EQ(message.find_first_of("\r\n"), std::string::npos);
}

}  // namespace
}  // namespace platform
