#include "host.h"

#include <windows.h>

#include <csignal>
#include <filesystem>

#include "port.h"

namespace ziqble::host {

namespace fs = std::filesystem;

// The bridge makes its pipes with small buffers. It may know who this client is, and not act in its name.
PipeStream openPipe(asio::io_context& io, const std::string& name, asio::error_code& error) {
    constexpr DWORD kFlags = FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION;
    const HANDLE pipe = ::CreateFileW(fs::path(name).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                      OPEN_EXISTING, kFlags, nullptr);
    error.assign(pipe == INVALID_HANDLE_VALUE ? static_cast<int>(::GetLastError()) : 0,
                 asio::system_category());
    return error ? PipeStream(io) : PipeStream(io, pipe);
}

bool isBusy(const asio::error_code& error) {
    return error.value() == ERROR_PIPE_BUSY;
}

bool isMissing(const asio::error_code& error) {
    return error.value() == ERROR_FILE_NOT_FOUND || error.value() == ERROR_PATH_NOT_FOUND;
}

bool hasHungUp(asio::ip::tcp::socket& socket) {
    WSAPOLLFD look{socket.native_handle(), POLLRDNORM, 0};
    return ::WSAPoll(&look, 1, 0) > 0 && (look.revents & (POLLHUP | POLLERR)) != 0;
}

bool isTerminal(int stream) {
    return ::_isatty(stream) != 0;
}

std::shared_ptr<void> rawTerminal() {
    const HANDLE input = ::GetStdHandle(STD_INPUT_HANDLE), output = ::GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD inputBefore = 0, outputBefore = 0;
    ::GetConsoleMode(input, &inputBefore);
    ::GetConsoleMode(output, &outputBefore);
    ::SetConsoleMode(input, ENABLE_VIRTUAL_TERMINAL_INPUT);
    ::SetConsoleMode(
        output, ENABLE_PROCESSED_OUTPUT | ENABLE_WRAP_AT_EOL_OUTPUT | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
    return {nullptr, [=](void*) {
                ::SetConsoleMode(input, inputBefore);
                ::SetConsoleMode(output, outputBefore);
            }};
}

Child::Child(const std::string& program, std::vector<std::string> arguments) {
    std::wstring own(32768, L'\0');
    own.resize(::GetModuleFileNameW(nullptr, own.data(), static_cast<DWORD>(own.size())));
    const fs::path beside = fs::path(own).parent_path() / (program + ".exe");
    std::error_code ignored;
    std::wstring line =
        L"\"" + (fs::exists(beside, ignored) ? beside : fs::path(program + ".exe")).wstring() + L"\"";
    for (const std::string& argument : arguments)
        line += L" \"" + fs::path(argument).wstring() + L"\"";
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;  // none: the log goes nowhere
    PROCESS_INFORMATION process{};
    // Ctrl-C is for ziqble, which ends the program in its own time.
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, CREATE_NEW_PROCESS_GROUP, nullptr,
                          nullptr, &startup, &process)) {
        throw Failure(Code::noBridge,
                      "cannot start " + program + ": error " + std::to_string(::GetLastError()));
    }
    ::CloseHandle(process.hThread);
    process_ = reinterpret_cast<std::intptr_t>(process.hProcess);
}

Child::~Child() {
    if (running()) ::TerminateProcess(reinterpret_cast<HANDLE>(process_), 1);
    ::CloseHandle(reinterpret_cast<HANDLE>(process_));
}

bool Child::running() {
    if (running_) running_ = ::WaitForSingleObject(reinterpret_cast<HANDLE>(process_), 0) == WAIT_TIMEOUT;
    return running_;
}

void prepareProcess() {
    for (const int stream : {0, 1})
        ::_setmode(stream, _O_BINARY);
}

const std::vector<int>& endSignals() {
    static const std::vector<int> signals{SIGINT, SIGTERM, SIGBREAK};
    return signals;
}

}  // namespace ziqble::host

namespace ziqble {

std::unique_ptr<Port> makePtyPort(asio::io_context&, const std::string&, PortEvent) {
    throw Failure(Code::usage, "--pty: Windows has no pseudo terminals", "Use --tcp PORT.");
}

}  // namespace ziqble
