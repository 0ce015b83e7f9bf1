#include "platform/version.h"

#include <windows.h>

#include "win32/system_function.h"

namespace platform {

namespace {

using RtlGetVersionFunction = LONG WINAPI(OSVERSIONINFOEXW*);

}  // namespace

// The documented call tells an unmanifested program the version that it was made for, so that it is only the
// last resort. The size field stays 0 on purpose: the true-version call fills the basic fields all the same,
// and a system whose documented call refuses it reads 0.0.0, which counts as old.
OsVersion osVersion() {
    OSVERSIONINFOEXW record{};
    if (const auto trueVersion = systemFunction<RtlGetVersionFunction>(L"ntdll.dll", "RtlGetVersion")) {
        trueVersion(&record);
    } else {
        ::GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&record));
    }
    return {record.dwMajorVersion, record.dwMinorVersion, record.dwBuildNumber};
}

}  // namespace platform
