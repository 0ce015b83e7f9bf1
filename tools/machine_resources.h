// What processes use of the machine, and which pipes it has. For tests, and for the relay under Wine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>

namespace machine {

struct Resources {
    std::size_t threads = 0;
    std::size_t handles = 0;
};
Resources resourcesOf(std::uint32_t process);
// How many threads and handles the host's libraries may add by themselves at any time.
extern const std::size_t kResourceNoise;

bool pipeExists(const std::filesystem::path& pipe);

}  // namespace machine
