// Pipes over Unix sockets.
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <thread>
#include <utility>

#include "platform/host/posix/pipe_name.h"
#include "posix/descriptor.h"
#include "tests/unit/host_pipe_fixture.h"

namespace platform {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using test::PipeClient;
using enum SystemError;

SystemError code(int error) {
    return static_cast<SystemError>(error);
}

TEST_F(HostPipe, AnEventThatIsAlwaysSetDoesNotStarveARead) {
    PipeClient client = openWithClient();
    Event other;
    other.set();
    const std::array events{&request_.event(), &other};
    EXPECT_EQ(pipe_->startRead(request_, buffer_).error, ioPending);
    EXPECT_EQ(waitAny(events, test::kDeadline), 1u);
    client.send("abc");
    EXPECT_EQ(waitAny(events, test::kDeadline), 0u);
}

TEST_F(HostPipe, ACancelledWriteTellsExactlyWhatTheClientGets) {
    PipeClient client = openWithClient();
    const Bytes block = largeBlock();
    EXPECT_EQ(pipe_->startWrite(request_, block).error, ioPending);
    const std::size_t taken = pipe_->cancel(request_).bytes;
    EXPECT_LT(taken, block.size()) << "bytes that nobody reads must not pile up";
    pipe_->disconnect();
    EXPECT_EQ(client.readBytes(block.size()).size(), taken);
}

TEST_F(HostPipe, AClientThatHasOnlyEndedItsSendingHasNotLeft) {
    open();
    const Descriptor client(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un target{};
    target.sun_family = AF_UNIX;
    path_.string().copy(target.sun_path, sizeof target.sun_path - 1);
    ASSERT_EQ(::connect(client.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target), 0);
    ASSERT_EQ(pipe_->connect(), none);
    ASSERT_EQ(::shutdown(client.get(), SHUT_WR), 0);
    EXPECT_EQ(read().error, brokenPipe);
    EXPECT_FALSE(pipe_->clientLeft());
    EXPECT_EQ(pipe_->startWrite(request_, buffer_).error, none);
}

TEST_F(HostPipe, SecondClientWaitsAndTheFirstOnesLastBytesAreRead) {
    PipeClient first = openWithClient(), second = newClient();
    pipe_->startWrite(request_, buffer_);  // not read, so that closing the client's end resets the connection
    second.send("2");
    first.send("1");
    first.close();
    EXPECT_EQ(readText(), "1");
    EXPECT_EQ(read().error, brokenPipe);
    EXPECT_EQ(pipe_->startWrite(request_, buffer_).error, brokenPipe);
    pipe_->disconnect();
    EXPECT_EQ(pipe_->connect(), none);
    EXPECT_EQ(readText(), "2");
}

TEST_F(HostPipe, DisconnectFromAnotherThreadAtAnyMoment) {
    for (int round = 0; round < 100; ++round) {
        const PipeClient client = openWithClient();
        std::thread disconnecter([this] { pipe_->disconnect(); });
        const SystemError outcome = read().error;
        disconnecter.join();
        EXPECT_TRUE(outcome == brokenPipe || outcome == code(ENOTCONN));
    }
    ASSERT_EQ(pipe_->startConnect(request_), ioPending);
    pipe_.reset();
    EXPECT_TRUE(wait()) << "a request may outlive its pipe";
}

TEST_F(HostPipe, OnlyAStaleSocketIsReplaced) {
    const fs::path lock = path_.string() + ".lock";
    const pid_t crashing = ::fork();
    if (crashing == 0) ::_exit(create().pipe ? 0 : 1);
    ::waitpid(crashing, nullptr, 0);
    open();
    EXPECT_EQ(fs::status(path_).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(create().error, code(EADDRINUSE));
    EXPECT_EQ(pipe_->startConnect(request_), ioPending) << "the second one must not show up as a client";
    pipe_->cancel(request_);
    fs::remove(lock);
    EXPECT_EQ(create().error, code(EADDRINUSE)) << "in use by a program that does not know the lock";
    newClient();
    pipe_->close();
    EXPECT_FALSE(fs::exists(path_));

    std::ofstream(path_) << "a file";
    EXPECT_EQ(create().error, code(EEXIST));
    fs::rename(path_, lock);
    EXPECT_EQ(create().error, code(EEXIST));
    EXPECT_TRUE(fs::remove(lock));
    open();
    fs::remove(path_);
    std::ofstream(path_) << "somebody else's";
    pipe_.reset();
    EXPECT_TRUE(fs::exists(path_));
    EXPECT_FALSE(fs::exists(lock));
}

TEST_F(HostPipe, Names) {
    const fs::path& directory = folder_.path();
    ::setenv("TMPDIR", directory.c_str(), 1);
    ::setenv("XDG_RUNTIME_DIR", directory.c_str(), 1);
    const std::pair<std::wstring, std::string> cases[] = {
        {LR"(\\.\\pipe\ZIQBLESh)", directory / "ZIQBLESh"},
        {LR"(\\\\.\\PIPE\\NAME)", directory / "NAME"},
        {LR"(\\.\pipe\..)", ""},
        {LR"(\\.\pipe\)", ""},
        {LR"(\\.\pipe\a/b)", ""},
        {LR"(\.\pipe\NAME)", R"(\.\pipe\NAME)"},
        {std::wstring(L"a\0b", 3), ""},
        {std::wstring(107, L'x'), std::string(107, 'x')},
        {std::wstring(108, L'x'), ""},
    };
    for (const auto& [name, path] : cases)
        EXPECT_EQ(socketPath(name).path, path);
    ::setenv("XDG_RUNTIME_DIR", "relative", 1);
    const fs::path own = directory / ("ziqbleconnect-" + std::to_string(::geteuid()));
    EXPECT_EQ(socketPath(LR"(\\.\pipe\NAME)").path, own / "NAME");
    EXPECT_EQ(fs::status(own).permissions(), fs::perms::owner_all);
    fs::permissions(own, fs::perms::group_exec, fs::perm_options::add);
    EXPECT_EQ(socketPath(LR"(\\.\pipe\NAME)").error, code(EACCES));
    ::unsetenv("XDG_RUNTIME_DIR");
    ::unsetenv("TMPDIR");
}

}  // namespace
}  // namespace platform
