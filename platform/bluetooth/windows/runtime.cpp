#include "platform/runtime.h"

#include <windows.h>

#include "operation.h"
#include "platform/version.h"

namespace platform {

namespace {

using RtlGetVersionFunction = LONG WINAPI(OSVERSIONINFOEXW*);

bool askForTrueVersion(OSVERSIONINFOEXW& record) {
    const HMODULE module = ::LoadLibraryW(L"ntdll.dll");
    if (!module) return false;
    const auto getVersion = reinterpret_cast<RtlGetVersionFunction*>(
        reinterpret_cast<void*>(::GetProcAddress(module, "RtlGetVersion")));
    if (getVersion) getVersion(&record);
    ::FreeLibrary(module);
    return getVersion != nullptr;
}

}  // namespace

BluetoothRuntime::BluetoothRuntime() = default;

BluetoothRuntime::~BluetoothRuntime() {
    winrt::endOperations();
}

// The documented call tells an unmanifested program the version that it was made for, so that it is only the
// last resort. The size field stays 0 on purpose: the true-version call fills the basic fields all the same,
// and a system whose documented call refuses it reads 0.0.0, which counts as old.
OsVersion osVersion() {
    OSVERSIONINFOEXW record{};
    if (!askForTrueVersion(record)) ::GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&record));
    return {record.dwMajorVersion, record.dwMinorVersion, record.dwBuildNumber};
}

}  // namespace platform
