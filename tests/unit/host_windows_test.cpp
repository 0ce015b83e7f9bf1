// The host on Windows: named pipes, clock, messages.
#include <gtest/gtest.h>
#include <windows.h>

#include <array>
#include <functional>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/pipe.h"
#include "tests/e2e/harness.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
using e2e::PipeClient;
using enum SystemError;
using Bytes = std::vector<std::uint8_t>;

SystemError code(DWORD error) {
    return static_cast<SystemError>(error);
}

class HostPipe : public ::testing::Test {
  protected:
    Pipe::Created create() const { return Pipe::create(path_.wstring()); }
    void open() {
        pipe_.reset();
        pipe_ = create().pipe;
        ASSERT_TRUE(pipe_);
    }
    PipeClient newClient() {
        PipeClient client;
        EXPECT_TRUE(client.tryOpen(path_));
        return client;
    }
    PipeClient openWithClient() {
        open();
        PipeClient client = newClient();
        EXPECT_EQ(pipe_->connect(), none);
        return client;
    }
    bool wait() { return waitAny(std::array{&request_.event()}, e2e::kDeadline).has_value(); }
    IoResult read() {
        const IoResult result = pipe_->startRead(request_, buffer_);
        return result.error == ioPending && wait() ? pipe_->result(request_) : result;
    }
    std::string readText() {
        const IoResult result = read();
        EXPECT_EQ(result.error, none);
        return {reinterpret_cast<const char*>(buffer_.data()), result.bytes};
    }

    const e2e::TemporaryFolder folder_;
    const std::filesystem::path path_ = e2e::dataPipe(folder_.path());
    std::shared_ptr<Pipe> pipe_;
    IoRequest request_;
    Bytes buffer_ = Bytes(512);
};

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

TEST_F(HostPipe, EarlyClientIsReportedAndOnlyOneWhoComesAfterwardsIsAnArrival) {
    open();
    EXPECT_EQ(pipe_->startRead(request_, buffer_).error, code(ERROR_PIPE_LISTENING));
    PipeClient early = newClient();
    EXPECT_EQ(pipe_->startConnect(request_), pipeConnected);
    EXPECT_EQ(pipe_->client().processId, ::GetCurrentProcessId());
    pipe_->disconnect();
    EXPECT_TRUE(early.waitForClose());

    EXPECT_EQ(pipe_->startConnect(request_), ioPending);
    PipeClient next = newClient();
    ASSERT_TRUE(wait());
    EXPECT_EQ(pipe_->result(request_).error, none);
    next.send("hello");
    EXPECT_EQ(readText(), "hello");
    next.send("last");
    next.close();
    EXPECT_EQ(readText(), "last");
    EXPECT_EQ(read().error, brokenPipe);
    EXPECT_EQ(pipe_->startWrite(request_, buffer_).error, brokenPipe);
}

TEST_F(HostPipe, PendingReadIsKeptAndACancelledOneLosesNothing) {
    PipeClient client = openWithClient();
    Bytes unused(512);
    EXPECT_EQ(pipe_->startRead(request_, buffer_).error, ioPending);
    client.send("abc");
    ASSERT_TRUE(wait());
    EXPECT_EQ(pipe_->startRead(request_, unused).error, ioPending) << "nobody has looked at the bytes yet";
    EXPECT_EQ(waitAny(std::array{&request_.event()}, 0ms), 0U);
    EXPECT_EQ(pipe_->cancel(request_).bytes, 3U) << "had finished before";
    EXPECT_EQ(buffer_[2], 'c');
    EXPECT_EQ(unused, Bytes(512));

    EXPECT_EQ(pipe_->startRead(request_, unused).error, ioPending);
    EXPECT_EQ(pipe_->cancel(request_).error, operationAborted);
    client.send("later");
    EXPECT_EQ(readText(), "later");
}

TEST_F(HostPipe, WriteToASlowClientArrivesWholeOrIsGivenUp) {
    PipeClient client = openWithClient();
    Bytes block(1 << 18);
    for (std::size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<std::uint8_t>(i * i >> 8);
    EXPECT_EQ(pipe_->startWrite(request_, block).error, ioPending);
    EXPECT_EQ(waitAny(std::array{&request_.event()}, 5ms), std::nullopt);
    EXPECT_EQ(pipe_->cancel(request_).error, operationAborted);

    client = openWithClient();
    EXPECT_EQ(pipe_->startWrite(request_, block).error, ioPending);
    const std::string received = client.readBytes(block.size());
    EXPECT_TRUE(wait());
    EXPECT_EQ(pipe_->result(request_).bytes, block.size());
    EXPECT_EQ(Bytes(received.begin(), received.end()), block);
}

TEST_F(HostPipe, FlushWaitsForTheClientButNotForEver) {
    PipeClient client = openWithClient();
    std::string received;
    EXPECT_EQ(pipe_->startWrite(request_, buffer_).error, none);
    std::thread reader([&] { received = client.readBytes(buffer_.size()); });
    pipe_->flush();
    pipe_->disconnect();
    reader.join();
    EXPECT_EQ(received.size(), buffer_.size());

    client = openWithClient();
    EXPECT_EQ(pipe_->startWrite(request_, buffer_).error, none);
    pipe_->flush();
    EXPECT_EQ(pipe_->startWrite(request_, buffer_).error, code(ERROR_PIPE_NOT_CONNECTED));
}

TEST_F(HostPipe, CloseFromAnotherThreadEndsWhatIsPending) {
    const Bytes block(1 << 18);
    const std::pair<bool, std::function<SystemError()>> cases[] = {
        {true, [&] { return pipe_->startRead(request_, buffer_).error; }},
        {true, [&] { return pipe_->startWrite(request_, block).error; }},
        {false, [&] { return pipe_->startConnect(request_); }},
    };
    for (const auto& [withClient, start] : cases) {
        const PipeClient client = openWithClient();
        if (!withClient) pipe_->disconnect();
        ASSERT_EQ(start(), ioPending);
        std::thread closer([this] { pipe_->close(); });
        EXPECT_TRUE(wait());
        closer.join();
        EXPECT_EQ(pipe_->result(request_).error, operationAborted);
        EXPECT_EQ(start(), operationAborted);
        EXPECT_FALSE(pipe_->isOpen() || e2e::pipeExists(path_));
    }
    for (int round = 0; round < 100; ++round) {
        open();
        std::thread closer([this] { pipe_->close(); });
        EXPECT_EQ(pipe_->connect(), operationAborted);
        closer.join();
    }
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
