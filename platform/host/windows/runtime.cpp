#include "platform/runtime.h"

#include <windows.h>

#include <shellapi.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "platform/text.h"
#include "security.h"
#include "system_error.h"
#include "win32/system_function.h"

namespace platform {

namespace {

// The system ends the process when the handler returns, and by itself a few seconds after the console was
// closed: in any case later than a program that has been asked to stop needs.
constexpr DWORD kLongestEndMs = 10'000;
constexpr DWORD kRoInitMultithreaded = 1;

// Looked for, so that the program in a simulated world starts where there is no Windows Runtime.
bool initializeWindowsRuntime() {
    const auto initialize = systemFunction<HRESULT WINAPI(DWORD)>(L"combase.dll", "RoInitialize");
    return initialize && SUCCEEDED(initialize(kRoInitMultithreaded));
}

void uninitializeWindowsRuntime() {
    const auto uninitialize = systemFunction<void WINAPI()>(L"combase.dll", "RoUninitialize");
    if (uninitialize) uninitialize();
}

// The log is UTF-8, which a console shows in whatever code page it has. Returns the one that it had; 0 where
// there is no console to change.
UINT switchConsoleToUtf8() {
    DWORD mode = 0;
    if (!::GetConsoleMode(::GetStdHandle(STD_OUTPUT_HANDLE), &mode)) return 0;
    const UINT before = ::GetConsoleOutputCP();
    return ::SetConsoleOutputCP(CP_UTF8) ? before : 0;
}

UINT consoleCodePageBefore = 0;  // HostRuntime's, main thread only

// Runs on a thread of the system's. Ctrl-C asks the program to stop, which may take a while: the second one
// ends it at once. After the other events the process lives for as long as this function runs; it is gone
// with the process, so it only has to wait.
BOOL WINAPI stopOnConsoleEvent(DWORD event) {
    static std::atomic<bool> askedBefore{false};
    const bool repeated = askedBefore.exchange(true);
    requestStop();
    if (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT) return repeated ? FALSE : TRUE;
    ::Sleep(kLongestEndMs);
    return TRUE;
}

}  // namespace

// The handler stays until the process ends: taking it away would wait for a handler that waits for the end.
HostRuntime::HostRuntime() : initialized_(initializeWindowsRuntime()) {
    if (!setUpComSecurity()) {
        std::fputws(L"Could not convert string security descriptor!", stderr);
        return;
    }
    consoleCodePageBefore = switchConsoleToUtf8();
    stopRequested();  // exists before the handler can need it
    ::SetConsoleCtrlHandler(stopOnConsoleEvent, TRUE);
    ready_ = true;
}

HostRuntime::~HostRuntime() {
    if (consoleCodePageBefore != 0) ::SetConsoleOutputCP(consoleCodePageBefore);
    if (initialized_) uninitializeWindowsRuntime();
}

bool writeStandardOutput(std::string_view utf8) {
    // Without a buffer, as a console may have none, each character would be written by itself.
    [[maybe_unused]] static const int buffered = std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
    return std::fwrite(utf8.data(), 1, utf8.size(), stdout) == utf8.size() && std::fflush(stdout) == 0;
}

// Not ExitProcess: it would call libraries whose locks a thread that hangs may hold.
void endProcess(int exitCode) noexcept {
    ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(exitCode));
    std::_Exit(exitCode);
}

// Not from main's arguments: those are in the user's code page, which does not know every character.
std::vector<std::string> programArguments(int, char**) {
    int count = 0;
    const std::unique_ptr<wchar_t*, decltype(&::LocalFree)> arguments(
        ::CommandLineToArgvW(::GetCommandLineW(), &count), ::LocalFree);
    std::vector<std::string> result;
    for (int i = 1; arguments && i < count; ++i)
        result.push_back(toUtf8(arguments.get()[i]));
    return result;
}

std::filesystem::path executableDirectory() {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = ::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0) throw lastError();
        if (length < path.size()) return std::filesystem::path(path.substr(0, length)).parent_path();
        path.resize(2 * path.size());
    }
}

}  // namespace platform
