#include <string>

#include "tools/machine_resources.h"

namespace machine {

namespace fs = std::filesystem;

const std::size_t kResourceNoise = 0;

Resources resourcesOf(std::uint32_t process) {
    const auto entries = [&](const char* kind) {
        const fs::directory_iterator first("/proc/" + std::to_string(process) + kind);
        return static_cast<std::size_t>(std::distance(first, fs::directory_iterator()));
    };
    return {entries("/task"), entries("/fd")};
}

bool pipeExists(const fs::path& pipe) {
    return fs::exists(pipe);
}

}  // namespace machine
