// Runs the real executable and its real pipes. harness.cpp has what is the same on every host.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace e2e {

using namespace std::chrono_literals;

// Long enough for a loaded machine under a sanitizer; reached only when something hangs.
inline constexpr auto kDeadline = 20s;

// A folder of its own for one test, removed with everything in it.
class TemporaryFolder {
  public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

struct Resources {
    std::size_t threads = 0;
    std::size_t handles = 0;
    std::size_t residentKiB = 0;
};

// What this process uses.
Resources ownResources();
std::uint32_t ownProcessId();
// How many threads and handles the host's libraries may add by themselves at any time.
extern const std::size_t kResourceNoise;
std::chrono::nanoseconds ownProcessorTime();

enum class StandardOutput { collected, notRead };  // not read: a pipe whose other end takes nothing

// The running program; killed at the end if it still runs. Standard output and error are collected.
class Program {
  public:
    // `scenario` is JSON text; the pipes and the working directory are in `folder`.
    Program(const std::filesystem::path& folder, std::string_view scenario,
            std::vector<std::string> arguments = {}, StandardOutput output = StandardOutput::collected);
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    // True once standard output has the text (`times` times); false at the deadline.
    bool waitForOutput(std::string_view text, int times = 1) const;
    std::string output() const;
    std::string errors() const;
    // Nothing when it still runs at the deadline.
    std::optional<int> waitForExit();

    void interrupt();  // Ctrl-C
    void terminate();  // SIGTERM; on Windows, which has none, Ctrl-C
    void kill();       // at once; the program cannot clean up
    Resources resources() const;

  private:
    struct Impl;

    std::optional<int> exitCode() const;  // nothing while it runs

    std::filesystem::path folder_;
    std::unique_ptr<Impl> impl_;
};

// One client of a pipe. One thread may send while another one reads.
class PipeClient {
  public:
    PipeClient();
    ~PipeClient();
    PipeClient(PipeClient&&) noexcept;
    PipeClient& operator=(PipeClient&&) noexcept;

    // Tries until the pipe is there, for kDeadline at most.
    bool open(const std::filesystem::path& pipe);
    bool tryOpen(const std::filesystem::path& pipe);
    // Blocks until everything is taken; false when the other end is gone.
    bool send(std::string_view bytes);
    // Reads until the text comes. Returns everything up to its end, or what came by the deadline.
    std::string readUntil(std::string_view end, std::chrono::milliseconds deadline = kDeadline);
    // Reads exactly that many bytes, or returns what came by the deadline.
    std::string readBytes(std::size_t count, std::chrono::milliseconds deadline = kDeadline);
    // True when the other end closes before the deadline.
    bool waitForClose();
    void close();

  private:
    struct Impl;

    // Reads what is there; false when the other end is gone or the deadline has passed.
    bool fill(std::chrono::steady_clock::time_point end);
    std::string take(std::size_t count);

    std::unique_ptr<Impl> impl_;
    std::string pending_;
};

// The pipes that belong to a folder.
std::filesystem::path commandPipe(const std::filesystem::path& folder);
std::filesystem::path dataPipe(const std::filesystem::path& folder);
bool pipeExists(const std::filesystem::path& pipe);

}  // namespace e2e
