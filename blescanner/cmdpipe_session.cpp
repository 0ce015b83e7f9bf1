#include <algorithm>
#include <array>
#include <chrono>
#include <deque>
#include <loguru.hpp>
#include <string>
#include <vector>

#include "blehelper.h"
#include "cmdpipe.h"
#include "cmdpipe_commands.h"
#include "cmdpipe_notification.h"
#include "lecomm.h"
#include "platform/clock.h"
#include "platform/runtime.h"
#include "platform/text.h"
#include "platform_error_text.h"
#include "settings.h"
#include "waiting.h"

namespace blescanner {

using namespace std::chrono_literals;
using platform::SystemError;

namespace {

enum class ClientOutcome { left, sentExit, programStopped };

// After so many failures in a row the client counts as gone. Otherwise a read that always fails would keep
// the shell busy for ever.
constexpr int kReadFailuresInARow = 3;
// How long a client may take to read what was written for it.
constexpr auto kFlushBound = 5000ms;

std::string messageOf(SystemError error) {
    return platform::systemMessage(platform::hresult(0x80070000U | platform::number(error)));
}

// Lines of the link are kept for the client while this lives.
struct NotificationScope {
    NotificationScope() { linkNotification().open(); }
    ~NotificationScope() { linkNotification().close(); }
    NotificationScope(const NotificationScope&) = delete;
    NotificationScope& operator=(const NotificationScope&) = delete;
};

// Ends a command that waits for the platform when its client has left or has sent "exit".
class ShellSession : private StopSignal {
  public:
    ShellSession() = default;
    // However the session ends: no link goes on without it, and no pipe stays.
    ~ShellSession() override {
        commands_.closeSession();
        dropClient();
    }
    ShellSession(const ShellSession&) = delete;
    ShellSession& operator=(const ShellSession&) = delete;

    void run();

  private:
    ClientOutcome clientStopped();
    ClientOutcome clientGone();
    bool createShellPipe();
    bool bluetoothUsable(bool on, std::uint32_t radios);
    bool leSupported(bool queryRan, std::uint32_t leAdapters);
    void letClientIn();
    void serveClients();
    ClientOutcome serveClient();
    ClientOutcome clientLoop();
    platform::IoResult waitForRead();
    void waitingLong() override;
    void readAhead();
    CommandResult execute();
    void deliverLinkLines();
    void dropClient();

    CNamedPipe shell_;
    CommandSet commands_{shell_, *this};
    std::array<std::uint8_t, 512> readBuffer_{};
    LineAccumulator line_;             // of the client that is served
    std::deque<std::uint8_t> unread_;  // what it has sent and nobody has executed
    bool exitAhead_ = false;
};

void ShellSession::run() {
    std::uint32_t radios = 0;
    const bool on = checkBluetoothRadio(radios, true, programEnd()) == RadioCheckResult::BluetoothOn;
    std::uint32_t leAdapters = 0;
    const bool leQueryRan = getBLEProtocolSupport(&leAdapters);
    if (!createShellPipe()) return;

    LOG_S(INFO) << "Shell pipe created. Checking BLE availability...";
    if (bluetoothUsable(on, radios) && leSupported(leQueryRan, leAdapters)) {
        LOG_S(INFO) << "BLE operational, starting command pipe\n";
        serveClients();
        LOG_S(INFO) << "Done.";
    }
}

bool ShellSession::createShellPipe() {
    const std::string name = platform::printable(settings().cmdPipeName);
    LOG_S(INFO) << "Creating " << name << " pipe.";
    const SystemError error = shell_.create(settings().cmdPipeName);
    if (error == SystemError::none) return true;
    LOG_S(ERROR) << "Could not create a named pipe: " << name;
    LOG_S(ERROR) << "System error " << platform::number(error) << ": " << messageOf(error);
    return false;
}

bool ShellSession::bluetoothUsable(bool on, std::uint32_t radios) {
    // More than one radio that is off counts as disabled: which one to switch on is the user's choice.
    if (!on && radios == 1) {
        switchBluetoothOn();
        radios = 0;
        on = checkBluetoothRadio(radios, true, programEnd()) == RadioCheckResult::BluetoothOn;
    }
    if (on) return true;

    for (const auto pauseAfter : {2000ms, 0ms}) {
        letClientIn();
        commands_.tellBluetoothUnusable(radios);
        programEnd().sleep(pauseAfter);
    }
    return false;
}

bool ShellSession::leSupported(bool queryRan, std::uint32_t leAdapters) {
    if (!queryRan || leAdapters != 0) return true;
    LOG_S(WARNING) << kNoLowEnergy;
    programEnd().sleep(2000ms);
    letClientIn();
    commands_.tellLowEnergyMissing();
    programEnd().sleep(500ms);
    return false;
}

// Takes a client that is waiting already, so that it gets what is written next. Does not wait for one:
// without a client the text is lost.
void ShellSession::letClientIn() {
    shell_.startConnect(shell_.readRequest);
    shell_.cancel(shell_.readRequest);
}

// Disconnects the client once it has read what was written for it.
void ShellSession::dropClient() {
    if (!shell_.flush(kFlushBound))
        LOG_S(WARNING) << "Command pipe: closed before the client had read all of it";
    shell_.disconnect();
}

void ShellSession::serveClients() {
    for (;;) {
        LOG_S(INFO) << "Waiting for a client to connect\n";
        const SystemError error = shell_.connect();
        programEnd().check();
        if (error != SystemError::none) {
            LOG_S(ERROR) << "Failed in call to CNamedPipe::ConnectClient, Error: " << platform::number(error);
            return;
        }
        shell_.logClient();
        const ClientOutcome outcome = serveClient();
        if (outcome == ClientOutcome::programStopped) throw Stopped();
        if (outcome == ClientOutcome::sentExit) {
            LOG_S(INFO) << "Exiting on terminate APP command";
            platform::requestStop();
            return;
        }
        dropClient();
        LOG_S(INFO) << "  Disconnecting ";
    }
}

ClientOutcome ShellSession::serveClient() {
    const NotificationScope notification;
    ClientOutcome outcome = ClientOutcome::left;
    try {
        outcome = clientLoop();
    } catch (const Stopped&) {
        outcome = clientStopped();
    } catch (const platform::PlatformError& error) {
        LOG_S(ERROR) << describe(error);
    } catch (...) {
        LOG_S(ERROR) << "Unknown exception in processing command!";
    }
    // Otherwise the next client would inherit this client's read.
    shell_.cancel(shell_.readRequest);
    return outcome;
}

ClientOutcome ShellSession::clientStopped() {
    if (exitAhead_) return ClientOutcome::sentExit;
    if (programEnd().stopped()) return ClientOutcome::programStopped;
    return clientGone();
}

ClientOutcome ShellSession::clientGone() {
    commands_.stopSession();
    LOG_S(ERROR) << "Client disconnected!";
    return ClientOutcome::left;
}

void ShellSession::waitingLong() {
    readAhead();
    if (exitAhead_) LOG_S(INFO) << "Received a terminate APP command";
    if (exitAhead_ || shell_.clientLeft()) throw Stopped();
}

// What the client has sent meanwhile is executed after the command that waits, but for "exit".
void ShellSession::readAhead() {
    while (unread_.size() < LineAccumulator::kLimit) {
        platform::IoResult read = shell_.startRead(shell_.readRequest, readBuffer_);
        if (read.error == SystemError::ioPending) read = shell_.result(shell_.readRequest);
        if (read.error != SystemError::none) break;
        unread_.insert(unread_.end(), readBuffer_.begin(),
                       readBuffer_.begin() + static_cast<long>(read.bytes));
    }
    LineAccumulator line = line_;
    for (const std::uint8_t byte : unread_) {
        if (!line.add(byte)) continue;
        line.lower();
        exitAhead_ = exitAhead_ || line.text() == L"exit";
        line.clear();
    }
}

// Line by line, so that readAhead() sees what is still to come.
CommandResult ShellSession::execute() {
    while (!unread_.empty()) {
        const auto lineEnd = std::find_if(unread_.begin(), unread_.end(), LineAccumulator::endsLine);
        const auto behind = lineEnd == unread_.end() ? lineEnd : lineEnd + 1;
        const std::vector<std::uint8_t> bytes(unread_.begin(), behind);
        unread_.erase(unread_.begin(), behind);
        const CommandResult result = commands_.dispatch(bytes, line_);
        if (result != CommandResult::goOn) return result;
    }
    return CommandResult::goOn;
}

ClientOutcome ShellSession::clientLoop() {
    line_.clear();
    unread_.clear();
    int failures = 0;
    for (;;) {
        programEnd().check();
        deliverLinkLines();

        // A read that is still pending from the last round is kept.
        platform::IoResult read = shell_.startRead(shell_.readRequest, readBuffer_);
        if (read.error == SystemError::ioPending) read = waitForRead();
        if (read.error == SystemError::ioPending) continue;

        if (read.error == SystemError::none) {
            failures = 0;
            unread_.insert(unread_.end(), readBuffer_.begin(),
                           readBuffer_.begin() + static_cast<long>(read.bytes));
            const auto result = execute();
            if (result == CommandResult::clientQuits) return ClientOutcome::left;
            if (result == CommandResult::programEnds) return ClientOutcome::sentExit;
            continue;
        }
        if (read.error != SystemError::brokenPipe) {
            LOG_S(ERROR) << "SHELL PIPE ERR(R)= (" << platform::number(read.error) << ")";
            if (++failures < kReadFailuresInARow) continue;
        }
        return clientGone();
    }
}

// Until the pending read ends, the link has something to tell, or 10 s have passed without either.
platform::IoResult ShellSession::waitForRead() {
    platform::Event* const events[] = {&shell_.readRequest.event(), &linkNotification().event(),
                                       &platform::stopRequested()};
    if (platform::waitAny(events, 10000ms) == 0U) return shell_.result(shell_.readRequest);
    return {SystemError::ioPending, 0};
}

void ShellSession::deliverLinkLines() {
    while (auto line = linkNotification().take()) {
        const bool dropped = *line == L"TIO DROP\r\n";
        shell_.writeText(*line);
        if (dropped) commands_.closeDataPipe();
    }
}

}  // namespace

void runShellSession() {
    try {
        ShellSession().run();
    } catch (const Stopped&) {
        LOG_S(INFO) << "The program has been asked to stop";
    }
}

}  // namespace blescanner
