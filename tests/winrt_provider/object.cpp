#include "tests/winrt_provider/object.h"

#include "win32/system_function.h"

namespace provider {

namespace {

constinit std::atomic<ObjectCount*> firstCount = nullptr;

}  // namespace

ObjectCount::ObjectCount(const wchar_t* name) noexcept : className(name), next(firstCount) {
    while (!firstCount.compare_exchange_weak(next, this)) {
    }
}

const ObjectCount* ObjectCount::first() noexcept {
    return firstCount;
}

bool olderWindows() {
    static const bool older = [] {
        constexpr DWORD kFirstBuildWithNewerCalls = 15063;
        OSVERSIONINFOW version{};
        version.dwOSVersionInfoSize = sizeof version;
        const auto ask =
            platform::systemFunction<LONG WINAPI(OSVERSIONINFOW*)>(L"ntdll.dll", "RtlGetVersion");
        if (ask) ask(&version);
        return version.dwMajorVersion < 10 || version.dwBuildNumber < kFirstBuildWithNewerCalls;
    }();
    return older;
}

}  // namespace provider
