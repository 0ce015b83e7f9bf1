#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>

#include "tests/e2e/harness.h"
#include "tests/e2e/subject.h"

namespace e2e {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

Resources resourcesOf(const std::string& process) {
    const fs::path proc = fs::path("/proc") / process;
    Resources used;
    std::ifstream status(proc / "status");
    for (std::string key; status >> key;) {
        if (key == "Threads:") status >> used.threads;
        if (key == "VmRSS:") status >> used.residentKiB;
    }
    used.handles = static_cast<std::size_t>(
        std::distance(fs::directory_iterator(proc / "fd"), fs::directory_iterator()));
    return used;
}

void redirect(const fs::path& path, int target) {
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
    ::dup2(file, target);
    ::close(file);
}

}  // namespace

const std::size_t kResourceNoise = 0;

Resources ownResources() {
    return resourcesOf("self");
}

std::uint32_t ownProcessId() {
    return static_cast<std::uint32_t>(::getpid());
}

std::chrono::nanoseconds ownProcessorTime() {
    return std::chrono::nanoseconds(1s) / CLOCKS_PER_SEC * std::clock();
}

TemporaryFolder::TemporaryFolder() {
    std::string name = (fs::temp_directory_path() / "ziqble-XXXXXX").string();
    path_ = ::mkdtemp(name.data());
}

struct Program::Impl {
    pid_t pid = -1;
    std::optional<int> exitCode;
    std::array<int, 2> unread{-1, -1};  // the pipe that standard output is, if nobody reads it

    ~Impl() {
        for (const int end : unread)
            if (end >= 0) ::close(end);
    }

    void reap(int options) {
        int status = 0;
        if (exitCode || ::waitpid(pid, &status, options) != pid) return;
        exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
};

Program::Program(const fs::path& folder, std::string_view scenario, std::vector<std::string> arguments,
                 StandardOutput output)
    : folder_(folder), impl_(std::make_unique<Impl>()) {
    const std::string scenarioFile = folder / "scenario.json";
    std::ofstream(scenarioFile) << scenario;
    if (arguments.empty()) {
        arguments = {"--cmdPipe", commandPipe(folder), "--datPipe", dataPipe(folder)};
    }
    std::string program = programUnderTest();
    std::vector<char*> argv{program.data()};
    for (auto& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    if (output == StandardOutput::notRead && ::pipe2(impl_->unread.data(), O_CLOEXEC) != 0) std::abort();
    impl_->pid = ::fork();
    if (impl_->pid != 0) return;
    output == StandardOutput::notRead ? void(::dup2(impl_->unread[1], STDOUT_FILENO))
                                      : redirect(folder / "out", STDOUT_FILENO);
    redirect(folder / "err", STDERR_FILENO);
    ::setenv("ZIQBLE_SCENARIO", scenarioFile.c_str(), 1);
    if (::chdir(folder.c_str()) == 0) ::execv(argv[0], argv.data());
    ::_exit(127);
}

Program::~Program() {
    if (!exitCode()) kill();
}

std::optional<int> Program::exitCode() const {
    impl_->reap(WNOHANG);
    return impl_->exitCode;
}

void Program::interrupt() {
    ::kill(impl_->pid, SIGINT);
}
void Program::terminate() {
    ::kill(impl_->pid, SIGTERM);
}
void Program::kill() {
    ::kill(impl_->pid, SIGKILL);
    impl_->reap(0);
}

Resources Program::resources() const {
    return resourcesOf(std::to_string(impl_->pid));
}

struct PipeClient::Impl {
    int socket = -1;
};

PipeClient::PipeClient() : impl_(std::make_unique<Impl>()) {}
PipeClient::~PipeClient() {
    if (impl_) close();
}
PipeClient::PipeClient(PipeClient&&) noexcept = default;
PipeClient& PipeClient::operator=(PipeClient&&) noexcept = default;

bool PipeClient::tryOpen(const fs::path& pipe) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, pipe.c_str(), sizeof address.sun_path - 1);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        impl_->socket = socket;
        return true;
    }
    ::close(socket);
    return false;
}

bool PipeClient::fill(Clock::time_point end) {
    pollfd readable{impl_->socket, POLLIN, 0};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) <= 0) return false;
    std::array<char, 65536> buffer;
    const ssize_t count = ::recv(impl_->socket, buffer.data(), buffer.size(), 0);
    if (count <= 0) return false;
    pending_.append(buffer.data(), static_cast<std::size_t>(count));
    return true;
}

bool PipeClient::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(impl_->socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

void PipeClient::close() {
    if (impl_->socket >= 0) ::close(impl_->socket);
    impl_->socket = -1;
    pending_.clear();
}

fs::path commandPipe(const fs::path& folder) {
    return folder / "shell";
}
fs::path dataPipe(const fs::path& folder) {
    return folder / "data";
}
bool pipeExists(const fs::path& pipe) {
    return fs::exists(pipe);
}

}  // namespace e2e
