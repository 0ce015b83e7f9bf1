#include <windows.h>

#include <winternl.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "tools/machine_resources.h"

namespace machine {

namespace {

// Reads one of the system's lists. Only these have the right counts of threads and handles under Wine.
std::vector<std::byte> systemList(int which) {
    static const auto query = reinterpret_cast<decltype(&::NtQuerySystemInformation)>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    std::vector<std::byte> list(1 << 20);
    ULONG length = 0;
    const auto status = query(static_cast<SYSTEM_INFORMATION_CLASS>(which), list.data(),
                              static_cast<ULONG>(list.size()), &length);
    if (status < 0) throw std::runtime_error("NtQuerySystemInformation failed");
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

}  // namespace

Resources resourcesOf(std::uint32_t process) {
    const auto list = systemList(SystemProcessInformation);
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
