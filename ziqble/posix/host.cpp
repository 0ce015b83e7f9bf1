#include "host.h"

#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <regex>
#include <thread>

#include "context.h"

namespace ziqble::host {

namespace fs = std::filesystem;

namespace {

std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value && value[0] == '/' ? value : "";
}

// As the bridge does it. A folder that somebody else made below one that is open to all is not the bridge's.
fs::path runtimeFolder(asio::error_code& error) {
    std::error_code ignored;
    if (const std::string path = variable("XDG_RUNTIME_DIR"); fs::is_directory(path, ignored)) return path;
    const std::string temporary = variable("TMPDIR");
    const fs::path path =
        fs::path(temporary.empty() ? "/tmp" : temporary) / ("ziqbleconnect-" + std::to_string(::geteuid()));
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        error.assign(errno, asio::system_category());
    } else if (status.st_uid != ::geteuid()) {
        error = asio::error::access_denied;
    }
    return path;
}

std::string socketPath(const std::string& name, asio::error_code& error) {
    static const std::regex form(R"(\\{2,4}\.\\{1,2}pipe\\{1,2}([^\\].*))", std::regex::icase);
    std::smatch found;
    return std::regex_match(name, found, form) ? runtimeFolder(error) / found[1].str() : fs::path(name);
}

}  // namespace

PipeStream openPipe(asio::io_context& io, const std::string& name, asio::error_code& error) {
    PipeStream stream(io);
    error.clear();
    const std::string path = socketPath(name, error);
    if (path.size() >= sizeof sockaddr_un::sun_path) error = asio::error::name_too_long;
    if (!error) stream.open({}, error);
    // A bridge whose queue of clients is full would hold up the call.
    if (!error) stream.non_blocking(true, error);
    if (!error) stream.set_option(asio::socket_base::send_buffer_size(4096), error);
    if (!error) stream.connect(path, error);
    return stream;
}

bool isBusy(const asio::error_code& error) {
    return error == asio::error::try_again || error == asio::error::would_block;
}

bool isMissing(const asio::error_code& error) {
    return error.value() == ENOENT || error.value() == ECONNREFUSED;
}

bool hasHungUp(asio::ip::tcp::socket& socket) {
    pollfd look{socket.native_handle(), POLLRDHUP, 0};
    return ::poll(&look, 1, 0) > 0;
}

bool isTerminal(int stream) {
    return ::isatty(stream) == 1;
}

std::shared_ptr<void> rawTerminal() {
    termios before{};
    ::tcgetattr(STDIN_FILENO, &before);
    termios raw = before;
    ::cfmakeraw(&raw);
    raw.c_oflag |= OPOST | ONLCR;  // a line feed begins a line, whoever sends it
    ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    return {nullptr, [before](void*) { ::tcsetattr(STDIN_FILENO, TCSANOW, &before); }};
}

Child::Child(const std::string& program, std::vector<std::string> arguments) {
    std::error_code ignored;
    const fs::path beside = fs::read_symlink("/proc/self/exe", ignored).parent_path() / program;
    const std::string path = fs::exists(beside, ignored) ? beside.string() : program;
    arguments.insert(arguments.begin(), path);
    std::vector<char*> texts;
    for (std::string& argument : arguments)
        texts.push_back(argument.data());
    texts.push_back(nullptr);

    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    ::posix_spawn_file_actions_init(&files);
    ::posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    ::posix_spawn_file_actions_adddup2(&files, STDOUT_FILENO, STDERR_FILENO);
    // Ctrl-C is for ziqble, which ends the program in its own time.
    ::posix_spawnattr_init(&attributes);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    pid_t process = 0;
    const int error = ::posix_spawnp(&process, path.c_str(), &files, &attributes, texts.data(), environ);
    ::posix_spawnattr_destroy(&attributes);
    ::posix_spawn_file_actions_destroy(&files);
    if (error != 0) throw Failure(Code::noBridge, "cannot start " + path + ": " + std::strerror(error));
    process_ = process;
}

Child::~Child() {
    const auto process = static_cast<pid_t>(process_);
    const auto end = in(5s);
    if (running()) ::kill(process, SIGTERM);
    for (; running(); std::this_thread::sleep_for(10ms)) {
        if (Clock::now() > end) ::kill(process, SIGKILL);
    }
}

bool Child::running() {
    if (running_) running_ = ::waitpid(static_cast<pid_t>(process_), nullptr, WNOHANG) == 0;
    return running_;
}

void prepareProcess() {
    std::signal(SIGPIPE, SIG_IGN);
    // No other file may take the number of a standard stream that is closed. Reading and writing it go on
    // failing.
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(stream, F_GETFD) < 0) ::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    }
}

const std::vector<int>& endSignals() {
    static const std::vector<int> signals{SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGALRM, SIGUSR1, SIGUSR2};
    return signals;
}

}  // namespace ziqble::host
