#include "platform/runtime.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace platform {

namespace {

constexpr std::array kStopSignals{SIGINT, SIGTERM, SIGHUP};
constexpr std::size_t kHandledSignals = kStopSignals.size() + 1;

struct Disposition {
    int signal;
    struct sigaction previous;
};

// What was in place before; filled from the front.
std::array<Disposition, kHandledSignals> previousDispositions;
std::size_t previousCount = 0;

// Started with nohup, the program is meant to outlive its terminal.
bool isIgnored(int signal) {
    struct sigaction current {};
    return ::sigaction(signal, nullptr, &current) == 0 && current.sa_handler == SIG_IGN;
}

// Asks the program to stop. It may take a while to do so: the next signal, whichever, ends it at once.
void stopOnSignal(int) {
    const int savedErrno = errno;
    for (const int signal : kStopSignals) {
        if (!isIgnored(signal)) std::signal(signal, SIG_DFL);
    }
    requestStop();
    errno = savedErrno;
}

bool handle(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    for (const int blocked : kStopSignals) {
        sigaddset(&action.sa_mask, blocked);
    }
    Disposition& saved = previousDispositions[previousCount];
    saved.signal = signal;
    if (::sigaction(signal, &action, &saved.previous) != 0) return false;
    ++previousCount;
    return true;
}

}  // namespace

HostRuntime::HostRuntime() {
    stopRequested();  // exists before a handler can need it
    initialized_ = true;
    ready_ = handle(SIGPIPE, SIG_IGN) && handle(SIGINT, stopOnSignal) && handle(SIGTERM, stopOnSignal) &&
             (isIgnored(SIGHUP) || handle(SIGHUP, stopOnSignal));
    if (!ready_) std::fprintf(stderr, "Could not set up signal handling: %s\n", std::strerror(errno));
}

HostRuntime::~HostRuntime() {
    if (!initialized_) return;
    while (previousCount > 0) {
        const Disposition& saved = previousDispositions[--previousCount];
        ::sigaction(saved.signal, &saved.previous, nullptr);
    }
}

// Not by a stream: it forgets what is in its buffer when a terminal or pipe that another program has made
// non-blocking refuses a write.
bool writeStandardOutput(std::string_view utf8) {
    while (!utf8.empty()) {
        const ssize_t count = ::write(STDOUT_FILENO, utf8.data(), utf8.size());
        if (count >= 0) {
            utf8.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) {
            pollfd writable{STDOUT_FILENO, POLLOUT, 0};
            ::poll(&writable, 1, -1);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

void endProcess(int exitCode) noexcept {
    std::_Exit(exitCode);
}

std::vector<std::string> programArguments(int argc, char** argv) {
    return argc > 1 ? std::vector<std::string>(argv + 1, argv + argc) : std::vector<std::string>();
}

std::filesystem::path executableDirectory() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

}  // namespace platform
