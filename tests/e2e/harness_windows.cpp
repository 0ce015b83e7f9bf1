#include <windows.h>

#include <winternl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "tests/e2e/harness.h"
#include "tests/e2e/subject.h"

namespace e2e {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

void require(bool succeeded, const char* call) {
    if (!succeeded) throw std::runtime_error(call + (" failed: " + std::to_string(::GetLastError())));
}

// Reads one of the system's lists. Only these have the right counts of threads and handles under Wine.
std::vector<std::byte> systemList(int which) {
    static const auto query = reinterpret_cast<decltype(&::NtQuerySystemInformation)>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    std::vector<std::byte> list(1 << 20);
    ULONG length = 0;
    const auto status = query(static_cast<SYSTEM_INFORMATION_CLASS>(which), list.data(),
                              static_cast<ULONG>(list.size()), &length);
    require(status >= 0, "NtQuerySystemInformation");
    return list;
}

struct HandleEntry {
    ULONG process;
    BYTE type, flags;
    USHORT value;
    void* object;
    ULONG access;
};

std::vector<HandleEntry> allHandles() {
    constexpr int kSystemHandleInformation = 16;
    const auto list = systemList(kSystemHandleInformation);
    const auto first = reinterpret_cast<const HandleEntry*>(list.data() + sizeof(void*));
    return {first, first + *reinterpret_cast<const ULONG*>(list.data())};
}

// The system's number for the type of registry keys.
BYTE keyType() {
    HKEY key = nullptr;
    ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Software", 0, KEY_READ, &key);
    const auto value = static_cast<USHORT>(reinterpret_cast<std::uintptr_t>(key));
    BYTE type = 0;
    for (const auto& entry : allHandles()) {
        if (entry.process == ::GetCurrentProcessId() && entry.value == value) type = entry.type;
    }
    ::RegCloseKey(key);
    return type;
}

// Registry keys are not counted: Wine leaves one open each time that a class of the Windows Runtime is looked
// up.
bool counts(const HandleEntry& handle) {
    static const BYTE keys = keyType();
    return handle.type != keys;
}

std::size_t handlesOf(DWORD process) {
    const auto all = allHandles();
    return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), [&](const auto& entry) {
        return entry.process == process && counts(entry);
    }));
}

Resources resourcesOf(DWORD process) {
    const auto list = systemList(SystemProcessInformation);
    for (const std::byte* entry = list.data();;) {
        const auto& info = *reinterpret_cast<const SYSTEM_PROCESS_INFORMATION*>(entry);
        if (reinterpret_cast<std::uintptr_t>(info.UniqueProcessId) == process) {
            return {info.NumberOfThreads, handlesOf(process),
                    info.VirtualMemoryCounters.WorkingSetSize / 1024};
        }
        if (info.NextEntryOffset == 0) return {};
        entry += info.NextEntryOffset;
    }
}

HANDLE inheritableFile(const fs::path& path, DWORD access, DWORD disposition) {
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    const HANDLE file =
        ::CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                      &inheritable, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    require(file != INVALID_HANDLE_VALUE, "CreateFileW");
    return file;
}

// Puts each argument in quotation marks. The arguments must not contain any, nor end in a backslash.
std::wstring commandLine(const std::vector<std::string>& arguments) {
    std::wstring line;
    for (const std::string& argument : arguments)
        line += L"\"" + fs::path(argument).wstring() + L"\" ";
    return line;
}

// A console without a window for one program, so that the test can press keys in it.
class Console {
  public:
    Console() {
        HANDLE keyboard = nullptr;
        require(::CreatePipe(&keyboard, &keys_, nullptr, 0), "CreatePipe");
        const HANDLE screen = inheritableFile("NUL", GENERIC_WRITE, OPEN_EXISTING);
        const HRESULT made = ::CreatePseudoConsole({80, 25}, keyboard, screen, 0, &console_);
        ::CloseHandle(keyboard);
        ::CloseHandle(screen);
        require(SUCCEEDED(made), "CreatePseudoConsole");
    }
    ~Console() {
        ::ClosePseudoConsole(console_);
        ::CloseHandle(keys_);
    }
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    HPCON get() const { return console_; }

  private:
    HANDLE keys_ = nullptr;
    HPCON console_ = nullptr;
};

// Sends the event and no key: Wine's console reads keys from a terminal only. Ctrl-C is the only event that
// it passes on.
void pressCtrlC(DWORD process) {
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION helper{};
    std::wstring line = commandLine({ZIQBLE_PRESS_CTRL_C, std::to_string(process)});
    require(::CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, DETACHED_PROCESS, nullptr,
                             nullptr, &startup, &helper),
            "CreateProcessW");
    ::WaitForSingleObject(helper.hProcess, INFINITE);
    ::CloseHandle(helper.hThread);
    ::CloseHandle(helper.hProcess);
}

}  // namespace

const std::size_t kResourceNoise = 8;

Resources ownResources() {
    return resourcesOf(::GetCurrentProcessId());
}

std::uint32_t ownProcessId() {
    return ::GetCurrentProcessId();
}

std::chrono::nanoseconds ownProcessorTime() {
    FILETIME created{}, ended{}, kernel{}, user{};
    ::GetProcessTimes(::GetCurrentProcess(), &created, &ended, &kernel, &user);
    return 100ns * (std::int64_t{kernel.dwLowDateTime} + user.dwLowDateTime);
}

TemporaryFolder::TemporaryFolder() {
    static std::atomic<int> count{0};
    const std::string number = std::to_string(::GetCurrentProcessId()) + "-" + std::to_string(++count);
    path_ = fs::temp_directory_path() / ("ziqble-" + number);
    fs::create_directories(path_);
}

struct Program::Impl {
    Console console;
    PROCESS_INFORMATION process{};
    HANDLE unread = nullptr;  // the other end of standard output, if nobody reads it

    HANDLE unreadOutput();
    void start(std::wstring line, const fs::path& folder, StandardOutput output);
};

HANDLE Program::Impl::unreadOutput() {
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    HANDLE written = nullptr;
    require(::CreatePipe(&unread, &written, &inheritable, 0), "CreatePipe");
    return written;
}

void Program::Impl::start(std::wstring line, const fs::path& folder, StandardOutput output) {
    SIZE_T size = 0;
    ::InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    std::vector<std::byte> memory(size);
    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = sizeof startup;
    startup.lpAttributeList = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(memory.data());
    ::InitializeProcThreadAttributeList(startup.lpAttributeList, 1, 0, &size);
    ::UpdateProcThreadAttribute(startup.lpAttributeList, 0, PROC_THREAD_ATTRIBUTE_PSEUDOCONSOLE,
                                console.get(), sizeof(HPCON), nullptr, nullptr);
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = inheritableFile("NUL", GENERIC_READ, OPEN_EXISTING);
    startup.StartupInfo.hStdOutput = output == StandardOutput::notRead
                                         ? unreadOutput()
                                         : inheritableFile(folder / "out", FILE_APPEND_DATA, CREATE_ALWAYS);
    startup.StartupInfo.hStdError = inheritableFile(folder / "err", FILE_APPEND_DATA, CREATE_ALWAYS);

    ::SetEnvironmentVariableW(L"ZIQBLE_SCENARIO", (folder / "scenario.json").c_str());
    const BOOL started =
        ::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, EXTENDED_STARTUPINFO_PRESENT, nullptr,
                         folder.c_str(), &startup.StartupInfo, &process);
    require(started, "CreateProcessW");
    ::DeleteProcThreadAttributeList(startup.lpAttributeList);
    for (const HANDLE file :
         {startup.StartupInfo.hStdInput, startup.StartupInfo.hStdOutput, startup.StartupInfo.hStdError})
        ::CloseHandle(file);
}

Program::Program(const fs::path& folder, std::string_view scenario, std::vector<std::string> arguments,
                 StandardOutput output)
    : folder_(folder), impl_(std::make_unique<Impl>()) {
    std::ofstream(folder / "scenario.json") << scenario;
    if (arguments.empty()) {
        arguments = {"--cmdPipe", commandPipe(folder).string(), "--datPipe", dataPipe(folder).string()};
    }
    arguments.insert(arguments.begin(), programUnderTest());
    impl_->start(commandLine(arguments), folder, output);
}

Program::~Program() {
    if (!exitCode()) kill();
    if (impl_->unread) ::CloseHandle(impl_->unread);
    ::CloseHandle(impl_->process.hThread);
    ::CloseHandle(impl_->process.hProcess);
}

std::optional<int> Program::exitCode() const {
    DWORD code = 0;
    if (::WaitForSingleObject(impl_->process.hProcess, 0) != WAIT_OBJECT_0) return std::nullopt;
    ::GetExitCodeProcess(impl_->process.hProcess, &code);
    return static_cast<int>(code);
}

void Program::interrupt() {
    pressCtrlC(impl_->process.dwProcessId);
}
void Program::terminate() {
    interrupt();
}
void Program::kill() {
    ::TerminateProcess(impl_->process.hProcess, 1);
    ::WaitForSingleObject(impl_->process.hProcess, INFINITE);
}

Resources Program::resources() const {
    return resourcesOf(impl_->process.dwProcessId);
}

struct PipeClient::Impl {
    HANDLE pipe = INVALID_HANDLE_VALUE;
    HANDLE readDone = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE writeDone = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);

    ~Impl() {
        ::CloseHandle(readDone);
        ::CloseHandle(writeDone);
    }
};

PipeClient::PipeClient() : impl_(std::make_unique<Impl>()) {}
PipeClient::~PipeClient() {
    if (impl_) close();
}
PipeClient::PipeClient(PipeClient&&) noexcept = default;
PipeClient& PipeClient::operator=(PipeClient&&) noexcept = default;

bool PipeClient::tryOpen(const fs::path& pipe) {
    impl_->pipe = ::CreateFileW(pipe.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                FILE_FLAG_OVERLAPPED, nullptr);
    return impl_->pipe != INVALID_HANDLE_VALUE;
}

bool PipeClient::fill(Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) return false;
    std::array<char, 65536> buffer;
    OVERLAPPED overlapped{};
    overlapped.hEvent = impl_->readDone;
    if (!::ReadFile(impl_->pipe, buffer.data(), buffer.size(), nullptr, &overlapped) &&
        ::GetLastError() != ERROR_IO_PENDING) {
        return false;
    }
    if (::WaitForSingleObject(impl_->readDone, static_cast<DWORD>(left.count())) != WAIT_OBJECT_0) {
        ::CancelIoEx(impl_->pipe, &overlapped);
    }
    DWORD count = 0;
    if (!::GetOverlappedResult(impl_->pipe, &overlapped, &count, TRUE)) return false;
    pending_.append(buffer.data(), count);
    return true;
}

bool PipeClient::send(std::string_view bytes) {
    OVERLAPPED overlapped{};
    overlapped.hEvent = impl_->writeDone;
    if (!::WriteFile(impl_->pipe, bytes.data(), static_cast<DWORD>(bytes.size()), nullptr, &overlapped) &&
        ::GetLastError() != ERROR_IO_PENDING) {
        return false;
    }
    DWORD count = 0;
    return ::GetOverlappedResult(impl_->pipe, &overlapped, &count, TRUE) && count == bytes.size();
}

void PipeClient::close() {
    if (impl_->pipe != INVALID_HANDLE_VALUE) ::CloseHandle(impl_->pipe);
    impl_->pipe = INVALID_HANDLE_VALUE;
    pending_.clear();
}

// Named pipes have no folder, so their names begin with the folder's name.
fs::path commandPipe(const fs::path& folder) {
    return L"\\\\.\\pipe\\" + folder.filename().wstring() + L"-shell";
}
fs::path dataPipe(const fs::path& folder) {
    return L"\\\\.\\pipe\\" + folder.filename().wstring() + L"-data";
}
bool pipeExists(const fs::path& pipe) {
    return ::WaitNamedPipeW(pipe.c_str(), 1) || ::GetLastError() != ERROR_FILE_NOT_FOUND;
}

}  // namespace e2e
