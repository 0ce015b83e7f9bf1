#include <windows.h>

#include "tests/unit/support.h"

namespace test {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::uint32_t ownProcessId() {
    return ::GetCurrentProcessId();
}

std::chrono::nanoseconds ownProcessorTime() {
    FILETIME created{}, ended{}, kernel{}, user{};
    ::GetProcessTimes(::GetCurrentProcess(), &created, &ended, &kernel, &user);
    return 100ns * (std::int64_t{kernel.dwLowDateTime} + user.dwLowDateTime);
}

// Named pipes have no folder, so their names begin with the folder's name.
fs::path pipeOf(const fs::path& folder, const std::string& name) {
    return L"\\\\.\\pipe\\" + folder.filename().wstring() + L"-" + fs::path(name).wstring();
}

}  // namespace test
