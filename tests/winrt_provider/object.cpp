#include "tests/winrt_provider/object.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <regex>

#include "platform/text.h"
#include "win32/system_function.h"

namespace provider {

namespace {

constinit std::atomic<ObjectCount*> firstCount = nullptr;

// The type as C++ writes it.
char* nameOf(const std::type_info& type) noexcept {
    return abi::__cxa_demangle(type.name(), nullptr, nullptr, nullptr);
}

}  // namespace

// Both languages nest and qualify names alike.
std::wstring operationName(const std::type_info& result) {
    const std::unique_ptr<char, decltype(&std::free)> type(nameOf(result), &std::free);
    std::string name = "Windows.Foundation.IAsyncOperation<" + std::string(type.get()) + ">";
    const std::pair<const char*, const char*> replacements[] = {
        {"ABI::", ""}, {"::", "."}, {"\\*", ""}, {"<", "`1<"}};
    for (const auto& [from, to] : replacements)
        name = std::regex_replace(name, std::regex(from), to);
    return platform::widen(name);
}

// The name is never freed.
ObjectCount::ObjectCount(const std::type_info& type) noexcept : className(nameOf(type)), next(firstCount) {
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
