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

class Link {
  public:
    explicit Link(const std::string& scenario) {
        world_.emplace(scenario);
        loguru::g_stderr_verbosity = loguru::Verbosity_OFF;  // a test reads the log by LogCapture
        platform::setTimeScale(500);
        blescanner::settings().datPipeName = platform::widen(test::pipeOf(folder_.path()).string());
        blescanner::linkNotification().open();
    }
    ~Link() {
        stop();
        world_.reset();  // ends the calls of the world that a session may hang in
        EXPECT_TRUE(ended());
        blescanner::linkNotification().close();
        platform::setTimeScale(1);
    }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

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
    test::PipeClient openData() { return test::PipeClient(test::pipeOf(folder_.path())); }
    bool ended() { return blescanner::waitForLinkSessions(test::kDeadline); }
    blescanner::TioContext& context() { return *blescanner::currentTioContext(); }
    sim::TioPeripheral& peripheral() { return world_->world().peripheral(0); }
    sim::World& world() { return world_->world(); }

  private:
    std::optional<sim::WorldScope> world_;
    test::TemporaryFolder folder_;
    std::shared_ptr<blescanner::CNamedPipe> pipe_;
};

}  // namespace test
