#include "platform/pipe.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

#include "platform/host/posix/descriptor.h"
#include "platform/host/posix/pipe_name.h"

namespace platform {
namespace {

namespace fs = std::filesystem;
using enum SystemError;
using Bytes = std::vector<std::uint8_t>;

constexpr auto kDeadline = std::chrono::seconds(20);

SystemError code(int error) {
    return static_cast<SystemError>(error);
}

class Client {
  public:
    explicit Client(const fs::path& path) : socket_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
        const timeval deadline{kDeadline.count(), 0};
        ::setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
        sockaddr_un address{AF_UNIX, {}};
        path.string().copy(address.sun_path, sizeof address.sun_path - 1);
        connected_ = ::connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    bool connected() const { return connected_; }
    void send(std::string_view text) { EXPECT_GT(::send(socket_.get(), text.data(), text.size(), 0), 0); }
    // Up to the end of the stream or the limit.
    Bytes receive(std::size_t limit) {
        Bytes bytes(limit);
        const ssize_t count = ::recv(socket_.get(), bytes.data(), limit, MSG_WAITALL);
        EXPECT_GE(count, 0);
        bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        return bytes;
    }

  private:
    Descriptor socket_;
    bool connected_ = false;
};

class HostPipe : public ::testing::Test {
  protected:
    HostPipe() {
        std::string pattern = fs::temp_directory_path() / "pipeXXXXXX";
        directory_ = ::mkdtemp(pattern.data());
        path_ = directory_ / "p";
    }
    ~HostPipe() override { fs::remove_all(directory_); }

    Pipe::Created create() const { return Pipe::create(path_.wstring()); }
    void open() {
        pipe_.reset();
        pipe_ = create().pipe;
        ASSERT_TRUE(pipe_);
    }
    Client openWithClient() {
        open();
        Client client(path_);
        EXPECT_EQ(pipe_->connect(), none);
        return client;
    }
    bool wait() { return waitAny(std::array{&request_.event()}, kDeadline).has_value(); }
    IoResult read() {
        const IoResult result = pipe_->startRead(request_, buffer_);
        return result.error == ioPending && wait() ? pipe_->result(request_) : result;
    }
    std::string readText() {
        const IoResult result = read();
        EXPECT_EQ(result.error, none);
        return {reinterpret_cast<const char*>(buffer_.data()), result.bytes};
    }

    fs::path directory_;
    fs::path path_;
    std::shared_ptr<Pipe> pipe_;
    IoRequest request_;
    Bytes buffer_ = Bytes(512);
};

TEST_F(HostPipe, EarlyClientIsReportedAndOnlyOneWhoComesAfterwardsIsAnArrival) {
    open();
    EXPECT_EQ(pipe_->startRead(request_, buffer_).error, code(ENOTCONN));
    Client early(path_), next(path_);
    EXPECT_EQ(pipe_->startConnect(request_), pipeConnected);
    EXPECT_EQ(pipe_->startConnect(request_), pipeConnected);
    EXPECT_EQ(pipe_->client().processId, static_cast<std::uint32_t>(::getpid()));
    EXPECT_EQ(pipe_->client().sessionId, static_cast<std::uint32_t>(::getsid(0)));
    pipe_->disconnect();
    EXPECT_TRUE(early.receive(1).empty());

    EXPECT_EQ(pipe_->startConnect(request_), ioPending);
    EXPECT_FALSE(request_.event().isSet());
    ASSERT_TRUE(wait());
    EXPECT_EQ(pipe_->result(request_).error, none);
    EXPECT_EQ(pipe_->result(request_).bytes, 0u);
    next.send("hello");
    EXPECT_EQ(readText(), "hello");
}

TEST_F(HostPipe, PendingReadIsKeptAndACancelledOneLosesNothing) {
    Client client = openWithClient();
    Bytes unused(512);
    Event other;
    other.set();
    const std::array events{&request_.event(), &other};
    EXPECT_EQ(pipe_->startRead(request_, buffer_).error, ioPending);
    EXPECT_EQ(pipe_->result(request_).error, ioPending);
    EXPECT_EQ(waitAny(events, kDeadline), 1u);
    client.send("abc");
    EXPECT_EQ(pipe_->startRead(request_, unused).error, ioPending);
    EXPECT_EQ(waitAny(events, kDeadline), 0u) << "an event that is always set must not starve the read";
    EXPECT_EQ(pipe_->cancel(request_).bytes, 3u) << "had finished before";
    EXPECT_EQ(buffer_[2], 'c');
    EXPECT_EQ(unused, Bytes(512));

    EXPECT_EQ(pipe_->startRead(request_, unused).error, ioPending);
    EXPECT_EQ(pipe_->cancel(request_).error, operationAborted);
    client.send("later");
    EXPECT_EQ(readText(), "later");
}

TEST_F(HostPipe, WriteToASlowClientReportsExactlyWhatItGets) {
    Client client = openWithClient();
    Bytes block(1 << 20);
    for (std::size_t i = 0; i < block.size(); ++i)
        block[i] = static_cast<std::uint8_t>(i * i >> 8);
    EXPECT_EQ(pipe_->startWrite(request_, block).error, ioPending);
    EXPECT_EQ(waitAny(std::array{&request_.event()}, std::chrono::milliseconds(5)), std::nullopt);
    const IoResult cancelled = pipe_->cancel(request_);
    EXPECT_EQ(cancelled.error, operationAborted);
    EXPECT_LT(cancelled.bytes, 1U << 20) << "what nobody reads must not pile up";
    ASSERT_EQ(client.receive(cancelled.bytes).size(), cancelled.bytes);

    Bytes received;
    std::thread reader([&] { received = client.receive(block.size()); });
    EXPECT_EQ(pipe_->startWrite(request_, block).error, ioPending);
    EXPECT_TRUE(wait());
    EXPECT_EQ(pipe_->result(request_).bytes, block.size());
    reader.join();
    EXPECT_EQ(received, block);

    EXPECT_EQ(pipe_->startWrite(request_, buffer_).error, none);
    pipe_->flush();
    pipe_->disconnect();
    EXPECT_EQ(client.receive(block.size()), buffer_) << "nothing more and nothing less";
}

TEST_F(HostPipe, SecondClientWaitsAndTheFirstOnesLastBytesAreRead) {
    std::optional<Client> first = openWithClient();
    Client second(path_);
    EXPECT_EQ(pipe_->startWrite(request_, buffer_).error,
              none);  // unread: its end will be reset, not just closed
    second.send("2");
    first->send("1");
    first.reset();
    EXPECT_EQ(readText(), "1");
    EXPECT_EQ(read().error, brokenPipe);
    EXPECT_TRUE(request_.event().isSet());
    EXPECT_EQ(pipe_->startWrite(request_, buffer_).error, brokenPipe);
    EXPECT_EQ(pipe_->connect(), pipeConnected);
    pipe_->disconnect();
    EXPECT_EQ(pipe_->connect(), none);
    EXPECT_EQ(readText(), "2");
}

TEST_F(HostPipe, CloseFromAnotherThreadEndsWhatIsPending) {
    const Bytes block(1 << 20);
    const std::pair<bool, std::function<SystemError()>> cases[] = {
        {true, [&] { return pipe_->startRead(request_, buffer_).error; }},
        {true, [&] { return pipe_->startWrite(request_, block).error; }},
        {false, [&] { return pipe_->startConnect(request_); }},
    };
    for (const auto& [withClient, start] : cases) {
        const Client client = openWithClient();
        if (!withClient) pipe_->disconnect();
        ASSERT_EQ(start(), ioPending);
        std::thread closer([this] { pipe_->close(); });
        EXPECT_TRUE(wait());
        closer.join();
        EXPECT_EQ(pipe_->result(request_).error, operationAborted);
        EXPECT_EQ(start(), operationAborted);
        EXPECT_FALSE(pipe_->isOpen());
        EXPECT_FALSE(Client(path_).connected());
    }
}

TEST_F(HostPipe, CloseAndDisconnectFromAnotherThreadAtAnyMoment) {
    for (int round = 0; round < 100; ++round) {
        open();
        std::thread closer([this] { pipe_->close(); });
        EXPECT_EQ(pipe_->connect(), operationAborted);
        closer.join();

        const Client client = openWithClient();
        std::thread disconnecter([this] { pipe_->disconnect(); });
        const SystemError outcome = read().error;
        disconnecter.join();
        EXPECT_TRUE(outcome == brokenPipe || outcome == code(ENOTCONN));
    }
    ASSERT_EQ(pipe_->startConnect(request_), ioPending);
    pipe_.reset();
    EXPECT_TRUE(wait()) << "a request may outlive its pipe";
}

TEST_F(HostPipe, SocketIsTheUsersAloneAndGoesWithThePipe) {
    open();
    struct stat status {};
    ASSERT_EQ(::stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFSOCK | 0600));
    EXPECT_EQ(create().error, code(EADDRINUSE));
    EXPECT_EQ(pipe_->startConnect(request_), ioPending) << "the second one must not show up as a client";
    pipe_->cancel(request_);
    pipe_->close();
    EXPECT_TRUE(fs::is_empty(directory_));

    open();
    fs::remove(path_);
    std::ofstream(path_) << "somebody else's";
    pipe_->close();
    EXPECT_TRUE(fs::exists(path_));
}

TEST_F(HostPipe, OnlyAStaleSocketIsReplaced) {
    const pid_t crashing = ::fork();
    if (crashing == 0) ::_exit(create().pipe ? 0 : 1);
    ::waitpid(crashing, nullptr, 0);
    ASSERT_TRUE(fs::is_socket(path_));
    open();
    EXPECT_TRUE(Client(path_).connected());

    fs::remove(path_.string() + ".lock");
    EXPECT_EQ(create().error, code(EADDRINUSE)) << "in use by a program that does not know the lock";
    EXPECT_TRUE(Client(path_).connected());
    pipe_->close();

    std::ofstream(path_) << "a file";
    EXPECT_EQ(create().error, code(EEXIST));
    fs::rename(path_, path_.string() + ".lock");
    EXPECT_EQ(create().error, code(EEXIST));
    EXPECT_EQ(fs::file_size(path_.string() + ".lock"), 6u);
}

TEST_F(HostPipe, Names) {
    const std::string own = directory_ / ("ziqbleconnect-" + std::to_string(::geteuid()));
    ::setenv("TMPDIR", directory_.c_str(), 1);
    ::setenv("XDG_RUNTIME_DIR", directory_.c_str(), 1);
    const std::pair<std::wstring, std::string> cases[] = {
        {LR"(\\.\pipe\NAME)", directory_ / "NAME"},
        {LR"(\\.\\pipe\ZIQBLESh)", directory_ / "ZIQBLESh"},
        {LR"(\\\\.\\PIPE\\NAME)", directory_ / "NAME"},
        {LR"(\\.\pipe\..)", ""},
        {LR"(\\.\pipe\)", ""},
        {LR"(\\.\pipe\a/b)", ""},
        {LR"(\.\pipe\NAME)", R"(\.\pipe\NAME)"},
        {L"", ""},
        {std::wstring(L"a\0b", 3), ""},
        {std::wstring(107, L'x'), std::string(107, 'x')},
        {LR"(\\.\pipe\)" + std::wstring(100, L'x'), ""},
    };
    for (const auto& [name, path] : cases) {
        EXPECT_EQ(socketPath(name).path, path);
        EXPECT_EQ(socketPath(name).error == none, !path.empty());
    }
    EXPECT_EQ(Pipe::create(std::wstring(108, L'x')).error, code(ENAMETOOLONG));

    ::setenv("XDG_RUNTIME_DIR", "relative", 1);
    EXPECT_EQ(socketPath(LR"(\\.\pipe\NAME)").path, own + "/NAME");
    EXPECT_EQ(fs::status(own).permissions(), fs::perms::owner_all);
    fs::permissions(own, fs::perms::group_exec, fs::perm_options::add);
    EXPECT_EQ(socketPath(LR"(\\.\pipe\NAME)").error, code(EACCES));
    ::unsetenv("XDG_RUNTIME_DIR");
    ::unsetenv("TMPDIR");
}

}  // namespace
}  // namespace platform
