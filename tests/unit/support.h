// What tests need of the machine that they run on.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

#include "bench/pipe.h"
#include "tools/machine_resources.h"

namespace test {

using machine::pipeExists;

// Long enough for a loaded machine under a sanitizer; reached only when something hangs.
inline constexpr std::chrono::seconds kDeadline{20};

std::uint32_t ownProcessId();
std::chrono::nanoseconds ownProcessorTime();

// A pipe that belongs to a folder.
std::filesystem::path pipeOf(const std::filesystem::path& folder, const std::string& name = "pipe");

// A folder of its own for one test, removed with everything in it.
class TemporaryFolder {
  public:
    TemporaryFolder() {
        static std::atomic<int> count{0};
        const std::string number = std::to_string(ownProcessId()) + "-" + std::to_string(++count);
        path_ = std::filesystem::temp_directory_path() / ("ziqble-" + number);
        std::filesystem::create_directories(path_);
    }
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

// One client of a pipe. One thread may send while another one reads.
class PipeClient {
  public:
    PipeClient() = default;
    explicit PipeClient(const std::filesystem::path& pipe) : pipe_(std::make_unique<Pipe>(pipe.string())) {}

    // False when the other end is gone.
    bool send(const std::string& text) {
        return pipe_->writeAll({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    }
    // Reads exactly that many bytes, or those that come before the other end closes or the pipe's deadline.
    std::string readBytes(std::size_t count) {
        std::string bytes(count, '\0');
        std::size_t have = 0;
        try {
            while (have < count) {
                const std::size_t more =
                    pipe_->readSome({reinterpret_cast<std::uint8_t*>(bytes.data()) + have, count - have});
                if (more == 0) break;
                have += more;
            }
        } catch (const std::runtime_error&) {
        }
        bytes.resize(have);
        return bytes;
    }
    // Reads until the text comes. Returns what came, also when the other end closes before.
    std::string readUntil(const std::string& end) {
        std::string bytes;
        for (std::string byte = readBytes(1); !byte.empty(); byte = readBytes(1)) {
            bytes += byte;
            if (bytes.ends_with(end)) break;
        }
        return bytes;
    }
    // True when the other end closes before the pipe's deadline.
    bool waitForClose() {
        std::array<std::uint8_t, 512> unread;
        try {
            while (pipe_->readSome(unread) > 0) {
            }
            return true;
        } catch (const std::runtime_error&) {
            return false;
        }
    }
    void close() { pipe_.reset(); }

  private:
    std::unique_ptr<Pipe> pipe_;
};

}  // namespace test
