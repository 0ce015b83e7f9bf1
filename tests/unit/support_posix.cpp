#include <unistd.h>

#include <ctime>
#include <fstream>

#include "tests/unit/support.h"

namespace test {

namespace fs = std::filesystem;

const std::size_t kResourceNoise = 0;

std::uint32_t ownProcessId() {
    return static_cast<std::uint32_t>(::getpid());
}

std::chrono::nanoseconds ownProcessorTime() {
    return std::chrono::nanoseconds(std::chrono::seconds(1)) / CLOCKS_PER_SEC * std::clock();
}

Resources resourcesOf(std::uint32_t process) {
    const auto entries = [&](const char* kind) {
        const fs::directory_iterator first("/proc/" + std::to_string(process) + kind);
        return static_cast<std::size_t>(std::distance(first, fs::directory_iterator()));
    };
    return {entries("/task"), entries("/fd")};
}

fs::path pipeOf(const fs::path& folder, const std::string& name) {
    return folder / name;
}
bool pipeExists(const fs::path& pipe) {
    return fs::exists(pipe);
}

}  // namespace test
