#include "platform/error.h"

#include <string_view>

#include "platform/text.h"
#include "system_error.h"

namespace platform {

namespace {

constexpr std::size_t kLongestMessage = 256;

}  // namespace

std::string systemMessage(HResult code) {
    wchar_t* found = nullptr;
    const DWORD length = ::FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
        static_cast<DWORD>(code), 0, reinterpret_cast<wchar_t*>(&found), 0, nullptr);
    const std::string message = toUtf8(std::wstring_view(found, length).substr(0, kLongestMessage));
    ::LocalFree(found);
    return message.substr(0, message.find_last_not_of(" \r\n") + 1);
}

SystemError fromWindows(DWORD code) noexcept {
    // What a write says when the client has gone; a read says ERROR_BROKEN_PIPE.
    if (code == ERROR_NO_DATA) return SystemError::brokenPipe;
    return static_cast<SystemError>(code);
}

SystemError lastSystemError() noexcept {
    return fromWindows(::GetLastError());
}

PlatformError lastError() {
    return PlatformError(HRESULT_FROM_WIN32(::GetLastError()));
}

}  // namespace platform
