#include "tests/e2e/harness.h"

#include <fstream>
#include <sstream>
#include <system_error>

#include "tests/eventually.h"

namespace e2e {

namespace fs = std::filesystem;
using test::eventually;
using Clock = std::chrono::steady_clock;

namespace {

// Opened as text, so that the line ends that Windows writes are read as '\n'.
std::string readText(const fs::path& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

}  // namespace

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

bool Program::waitForOutput(std::string_view text, int times) const {
    return eventually([&] {
        const std::string all = output();
        std::size_t from = 0;
        for (int found = 0; found < times; ++found) {
            from = all.find(text, from);
            if (from == std::string::npos) return false;
            from += text.size();
        }
        return true;
    });
}

std::string Program::output() const {
    return readText(folder_ / "out");
}
std::string Program::errors() const {
    return readText(folder_ / "err");
}

std::optional<int> Program::waitForExit() {
    eventually([this] { return exitCode().has_value(); });
    return exitCode();
}

bool PipeClient::open(const fs::path& pipe) {
    return eventually([&] { return tryOpen(pipe); });
}

std::string PipeClient::readUntil(std::string_view text, std::chrono::milliseconds deadline) {
    const auto end = Clock::now() + deadline;
    for (;;) {
        const std::size_t found = pending_.find(text);
        if (found != std::string::npos) return take(found + text.size());
        if (!fill(end)) return take(pending_.size());
    }
}

std::string PipeClient::readBytes(std::size_t count, std::chrono::milliseconds deadline) {
    const auto end = Clock::now() + deadline;
    while (pending_.size() < count && fill(end)) {
    }
    return take(count);
}

std::string PipeClient::take(std::size_t count) {
    std::string taken = pending_.substr(0, count);
    pending_.erase(0, count);
    return taken;
}

bool PipeClient::waitForClose() {
    const auto end = Clock::now() + kDeadline;
    while (fill(end)) {
    }
    return Clock::now() < end;
}

}  // namespace e2e
