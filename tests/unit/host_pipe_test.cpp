// What pipes do on every host.
#include <functional>
#include <thread>
#include <utility>

#include "tests/eventually.h"
#include "tests/unit/host_pipe_fixture.h"

namespace platform {
namespace {

using test::PipeClient;
using enum SystemError;

TEST_F(HostPipe, ReportsAClientThatCameEarlyAndServesTheNextOne) {
    open();
    const SystemError tooEarly = pipe_->startRead(request_, buffer_).error;
    EXPECT_FALSE(tooEarly == none || tooEarly == ioPending);
    PipeClient early = newClient();
    EXPECT_EQ(pipe_->startConnect(request_), pipeConnected);
    EXPECT_EQ(pipe_->client().processId, test::ownProcessId());
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
    EXPECT_EQ(pipe_->startRead(request_, unused).error, ioPending) << "the result has not been taken yet";
    EXPECT_EQ(pipe_->cancel(request_).bytes, 3U) << "the read had finished before";
    EXPECT_EQ(buffer_[2], 'c');
    EXPECT_EQ(unused, Bytes(512));

    EXPECT_EQ(pipe_->startRead(request_, unused).error, ioPending);
    EXPECT_EQ(pipe_->cancel(request_).error, operationAborted);
    client.send("later");
    EXPECT_EQ(readText(), "later");
}

TEST_F(HostPipe, TellsWhetherTheClientHasLeft) {
    open();
    EXPECT_TRUE(pipe_->clientLeft()) << "nobody has come";
    PipeClient client = openWithClient();
    EXPECT_FALSE(pipe_->clientLeft());
    client.send("unread");
    EXPECT_FALSE(pipe_->clientLeft());
    client.close();
    EXPECT_TRUE(test::eventually([&] { return pipe_->clientLeft(); }))
        << "although its bytes are still there";
    EXPECT_EQ(readText(), "unread");

    client = openWithClient();
    EXPECT_EQ(pipe_->startWrite(request_, buffer_).error, none);
    client.close();
    EXPECT_TRUE(test::eventually([&] { return pipe_->clientLeft(); })) << "although it has not read ours";
    pipe_->disconnect();
    EXPECT_TRUE(pipe_->clientLeft());
    pipe_->close();
    EXPECT_TRUE(pipe_->clientLeft());
}

TEST_F(HostPipe, WriteToASlowClientIsGivenUpOrArrivesWholeAlsoWhenItIsDroppedAfterwards) {
    PipeClient client = openWithClient();
    const Bytes block = largeBlock();
    EXPECT_EQ(pipe_->startWrite(request_, block).error, ioPending);
    EXPECT_EQ(waitAny(std::array{&request_.event()}, std::chrono::milliseconds(5)), std::nullopt);
    EXPECT_EQ(pipe_->cancel(request_).error, operationAborted);

    client = openWithClient();
    EXPECT_EQ(pipe_->startWrite(request_, block).error, ioPending);
    std::string received;
    std::thread reader([&] { received = client.readBytes(2 * block.size()); });
    EXPECT_TRUE(wait());
    EXPECT_EQ(pipe_->result(request_).bytes, block.size());
    EXPECT_TRUE(pipe_->flush(std::chrono::seconds(5)));
    pipe_->disconnect();
    reader.join();
    EXPECT_EQ(Bytes(received.begin(), received.end()), block) << "nothing more and nothing less";
}

TEST_F(HostPipe, CloseFromAnotherThreadEndsWhatIsPending) {
    const Bytes block = largeBlock();
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
        EXPECT_FALSE(pipe_->isOpen() || test::pipeExists(path_));
    }
    for (int round = 0; round < 100; ++round) {
        open();
        std::thread closer([this] { pipe_->close(); });
        EXPECT_EQ(pipe_->connect(), operationAborted);
        closer.join();
    }
}

}  // namespace
}  // namespace platform
