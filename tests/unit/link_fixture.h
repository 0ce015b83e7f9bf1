// A link session in this process: the program's session code between the simulated world and a real data
// pipe.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "blescanner/cmdpipe.h"
#include "blescanner/cmdpipe_notification.h"
#include "blescanner/lecomm.h"
#include "blescanner/settings.h"
#include "platform/bluetooth/sim/world.h"
#include "platform/clock.h"
#include "platform/text.h"
#include "tests/unit/log_capture.h"
#include "tests/unit/support.h"

namespace test {

using namespace std::chrono_literals;

inline constexpr const wchar_t* kAddress = L" 00:1a:7d:da:71:13";

// A simulated world with its pipes, for the program's code in this process.
class Rig {
  public:
    explicit Rig(const std::string& scenario) : world_(std::in_place, scenario) {
        loguru::g_stderr_verbosity = loguru::Verbosity_OFF;  // a test reads the log by LogCapture
        blescanner::settings().cmdPipeName = pipeOf(folder_.path(), "shell").wstring();
        blescanner::settings().datPipeName = pipeOf(folder_.path(), "data").wstring();
    }
    ~Rig() { blescanner::settings() = {}; }
    Rig(const Rig&) = delete;
    Rig& operator=(const Rig&) = delete;

    PipeClient openShell() { return PipeClient(pipeOf(folder_.path(), "shell")); }
    PipeClient openData() { return PipeClient(pipeOf(folder_.path(), "data")); }
    bool hasPipes() const {
        return pipeExists(pipeOf(folder_.path(), "shell")) || pipeExists(pipeOf(folder_.path(), "data"));
    }
    bool ended() { return blescanner::waitForLinkSessions(kDeadline); }
    sim::World& world() { return world_->world(); }

  protected:
    // Ends the calls of the world that a session may hang in.
    void endWorld() {
        world_.reset();
        EXPECT_TRUE(ended());
    }

  private:
    const TemporaryFolder folder_;
    std::optional<sim::WorldScope> world_;
};

class Link : public Rig {
  public:
    explicit Link(const std::string& scenario) : Rig(scenario) {
        platform::setTimeScale(500);
        blescanner::linkNotification().open();
    }
    ~Link() {
        stop();
        endWorld();
        blescanner::linkNotification().close();
        platform::setTimeScale(1);
    }

    void connect(const wchar_t* address = kAddress) {
        pipe_ = blescanner::createDataPipe();
        EXPECT_EQ(blescanner::lecommStart(pipe_, address), 0);
    }
    // Does what the shell does for "disconnect".
    void stop() {
        blescanner::stopLink(context());
        if (pipe_) pipe_->close();
    }
    // The next line for the client, without its end; empty when none came in time.
    std::string line(std::chrono::milliseconds deadline = test::kDeadline) {
        platform::Event* const events[] = {&blescanner::linkNotification().event()};
        if (!platform::waitAny(events, deadline)) return "";
        const auto taken = blescanner::linkNotification().take();
        return taken ? platform::toUtf8(taken->substr(0, taken->size() - 2)) : "";
    }
    blescanner::TioContext& context() { return *blescanner::currentTioContext(); }
    sim::TioPeripheral& peripheral() { return world().peripheral(0); }

  private:
    std::shared_ptr<blescanner::CNamedPipe> pipe_;
};

}  // namespace test
