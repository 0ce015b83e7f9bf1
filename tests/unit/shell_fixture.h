// The command pipe in this process, between the simulated world and a real client.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "blescanner/blehelper.h"
#include "tests/eventually.h"
#include "tests/unit/document_table.h"
#include "tests/unit/link_fixture.h"
#include "tests/unit/sleep_recorder.h"

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
    std::atomic<bool> stalled = false;              // time-outs of writes pass at once
    std::atomic<int> failingReads = 0, reads = 0;   // of the command pipe
    std::atomic<bool> dataThrows = false;           // as only a fault in the host's code does
    std::atomic<std::size_t> dataTakes = SIZE_MAX;  // bytes of a write, before it is given up
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
        if (control_.dataThrows && name_ == "data") throw std::runtime_error("odd pipe");
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
        if (name_ != "data" || buffer.size() <= control_.dataTakes) return real_->startWrite(request, buffer);
        return {SystemError::operationAborted, control_.dataTakes};
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
class ShellWorld : public Rig {
  public:
    explicit ShellWorld(const std::string& scenario) : Rig(scenario) {
        blescanner::scanIntervalsConfigured = true;
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
        endWorld();
    }

    PipeControl control;
    LogCapture log;
    std::function<void()> onShellCreated;
    SleepRecorder sleeps;  // replaces the world's time scale
};

}  // namespace test
