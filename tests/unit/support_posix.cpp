#include <unistd.h>

#include <ctime>

#include "tests/unit/support.h"

namespace test {

namespace fs = std::filesystem;

std::uint32_t ownProcessId() {
    return static_cast<std::uint32_t>(::getpid());
}

std::chrono::nanoseconds ownProcessorTime() {
    return std::chrono::nanoseconds(std::chrono::seconds(1)) / CLOCKS_PER_SEC * std::clock();
}

fs::path pipeOf(const fs::path& folder, const std::string& name) {
    return folder / name;
}

}  // namespace test
