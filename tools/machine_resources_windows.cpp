#include <windows.h>

#include <winternl.h>

#include <cstdint>
#include <stdexcept>
#include <vector>

#include "tools/machine_resources.h"

namespace machine {

namespace {

// Reads the system's list of processes: nothing else has the right counts of threads under Wine.
std::vector<std::byte> processList() {
    static const auto query = reinterpret_cast<decltype(&::NtQuerySystemInformation)>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    std::vector<std::byte> list(1 << 20);
    ULONG length = 0;
    if (query(SystemProcessInformation, list.data(), static_cast<ULONG>(list.size()), &length) < 0)
        throw std::runtime_error("NtQuerySystemInformation failed");
    return list;
}

bool isRegistryKey(HANDLE handle) {
    return ::RegQueryInfoKeyW(static_cast<HKEY>(handle), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                              nullptr, nullptr, nullptr, nullptr, nullptr) != ERROR_INVALID_HANDLE;
}

// The handles of a process but for its registry keys: Wine leaves one of those open each time that a class of
// the Windows Runtime is looked up. The system's list of all handles would be simpler, but Wine 8's server
// crashes over it while a process starts or ends.
std::size_t handlesOf(DWORD process) {
    constexpr std::uintptr_t kStep = 4, kLongestGap = 500 * kStep;
    const HANDLE owner = ::OpenProcess(PROCESS_DUP_HANDLE, FALSE, process);
    std::size_t handles = 0;
    for (std::uintptr_t value = kStep, end = kLongestGap; value < end; value += kStep) {
        HANDLE copy = nullptr;
        if (!::DuplicateHandle(owner, reinterpret_cast<HANDLE>(value), ::GetCurrentProcess(), &copy, 0, FALSE,
                               DUPLICATE_SAME_ACCESS))
            continue;
        handles += !isRegistryKey(copy);
        ::CloseHandle(copy);
        end = value + kLongestGap;
    }
    ::CloseHandle(owner);
    return handles;
}

}  // namespace

Resources resourcesOf(std::uint32_t process) {
    const auto list = processList();
    for (const std::byte* entry = list.data();;) {
        const auto& info = *reinterpret_cast<const SYSTEM_PROCESS_INFORMATION*>(entry);
        if (reinterpret_cast<std::uintptr_t>(info.UniqueProcessId) == process) {
            return {info.NumberOfThreads, handlesOf(process)};
        }
        if (info.NextEntryOffset == 0) return {};
        entry += info.NextEntryOffset;
    }
}

const std::size_t kResourceNoise = 8;

bool pipeExists(const std::filesystem::path& pipe) {
    return ::WaitNamedPipeW(pipe.c_str(), 1) || ::GetLastError() != ERROR_FILE_NOT_FOUND;
}

}  // namespace machine
