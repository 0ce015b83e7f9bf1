// The command pipe in this process, between the simulated world and a real client.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "blescanner/blehelper.h"
#include "blescanner/cmdpipe.h"
#include "blescanner/lecomm.h"
#include "blescanner/settings.h"
#include "platform/bluetooth/sim/world.h"
#include "platform/text.h"
#include "tests/eventually.h"
#include "tests/unit/log_capture.h"
#include "tests/unit/sleep_recorder.h"
#include "tests/unit/support.h"

namespace test {

using platform::IoRequest;
using platform::IoResult;
using platform::SystemError;
using Sleeps = std::vector<long long>;
using Texts = std::vector<std::string>;

// The address of the simulated peripheral.
inline constexpr const char* kConnect = "connect 00:1A:7D:DA:71:13\n";

// What pipes do on request, and what was asked of them. Threads: any.
struct PipeControl {
    // Notes "NAME WHAT".
    void note(const std::string& what) {
        const std::lock_guard lock(mutex);
        noted.push_back(what);
    }
    // What was noted since the last call.
    Texts calls() {
        const std::lock_guard lock(mutex);
        return std::exchange(noted, {});
    }

    std::atomic<bool> connectFails = false, flushed = true;
    std::atomic<bool> stalled = false;             // time-outs of writes pass at once
    std::atomic<int> failingReads = 0, reads = 0;  // of the command pipe
    std::mutex mutex;
    Texts noted;
};

inline constexpr auto kFailure = static_cast<SystemError>(5);

// A pipe of the host under that control.
class WatchedPipe : public platform::Pipe {
  public:
    WatchedPipe(std::shared_ptr<Pipe> real, std::string name, PipeControl& control)
        : real_(std::move(real)), name_(std::move(name)), control_(control) {}

    SystemError startConnect(IoRequest& request) override {
        return control_.connectFails ? kFailure : real_->startConnect(request);
    }
    IoResult startRead(IoRequest& request, std::span<std::uint8_t> buffer) override {
        if (name_ != "shell") return real_->startRead(request, buffer);
        ++control_.reads;
        if (control_.failingReads == 0) return real_->startRead(request, buffer);
        --control_.failingReads;
        return {kFailure, 0};
    }
    IoResult startWrite(IoRequest& request, std::span<const std::uint8_t> buffer) override {
        return real_->startWrite(request, buffer);
    }
    IoResult finish(IoRequest& request, std::chrono::milliseconds timeout) override {
        if (!control_.stalled) return real_->finish(request, timeout);
        control_.note(name_ + " wait " + std::to_string(timeout.count()));
        return real_->cancel(request);
    }
    IoResult result(IoRequest& request) override { return real_->result(request); }
    IoResult cancel(IoRequest& request) override { return real_->cancel(request); }
    bool flush(std::chrono::milliseconds bound) override {
        control_.note(name_ + " flush " + std::to_string(bound.count()));
        return real_->flush(bound) && control_.flushed;
    }
    bool clientLeft() const override { return real_->clientLeft(); }
    void disconnect() override { control_.note(name_ + " disconnect"), real_->disconnect(); }
    void close() override { control_.note(name_ + " close"), real_->close(); }
    bool isOpen() const override { return real_->isOpen(); }
    platform::ClientIdentity client() const override { return real_->client(); }

  private:
    const std::shared_ptr<Pipe> real_;
    const std::string name_;
    PipeControl& control_;
};

// A world with its pipes, in which fixed sleeps are recorded and hardly take time.
class ShellWorld {
  public:
    explicit ShellWorld(const std::string& scenario) : world_(std::in_place, scenario) {
        loguru::g_stderr_verbosity = loguru::Verbosity_OFF;
        blescanner::scanIntervalsConfigured = true;
        blescanner::settings().cmdPipeName = test::pipeOf(folder_.path(), "shell").wstring();
        blescanner::settings().datPipeName = test::pipeOf(folder_.path(), "data").wstring();
        blescanner::CNamedPipe::creator = [this](std::wstring_view name) {
            auto created = platform::Pipe::create(name);
            const std::string kind = name == blescanner::settings().datPipeName ? "data" : "shell";
            if (created.pipe) created.pipe = std::make_shared<WatchedPipe>(created.pipe, kind, control);
            if (kind == "shell" && onShellCreated) onShellCreated();
            return created;
        };
    }
    ~ShellWorld() {
        blescanner::CNamedPipe::creator = platform::Pipe::create;
        world_.reset();  // ends the calls of the world that a session may hang in
        EXPECT_TRUE(blescanner::waitForLinkSessions(test::kDeadline));
        blescanner::settings() = {};
    }
    ShellWorld(const ShellWorld&) = delete;
    ShellWorld& operator=(const ShellWorld&) = delete;

    PipeClient openShell() const { return PipeClient(pipeOf(folder_.path(), "shell")); }
    PipeClient openData() const { return PipeClient(pipeOf(folder_.path(), "data")); }
    bool hasPipes() const {
        return pipeExists(pipeOf(folder_.path(), "shell")) || pipeExists(pipeOf(folder_.path(), "data"));
    }
    sim::World& world() { return world_->world(); }

    PipeControl control;
    LogCapture log;
    std::function<void()> onShellCreated;

  private:
    const test::TemporaryFolder folder_;
    std::optional<sim::WorldScope> world_;

  public:
    SleepRecorder sleeps;  // last: after the world, whose time scale it replaces
};

}  // namespace test
