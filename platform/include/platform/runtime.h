// Start-up and shutdown of the process, on the host's and on the Bluetooth side.
#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/event.h"

namespace platform {

// Process-wide set-up of the host for as long as the object lives: apartment and COM security where the host
// has them, and the ways in which a user stops a console program (Ctrl-C, SIGTERM, closing the console),
// which from then on signal stopRequested(). Made once, on the main thread, before any other thread.
class HostRuntime {
  public:
    HostRuntime();
    ~HostRuntime();
    HostRuntime(const HostRuntime&) = delete;
    HostRuntime& operator=(const HostRuntime&) = delete;

    // False: the host could not be set up and has said why on standard error; the program ends.
    bool ready() const { return ready_; }

  private:
    bool ready_ = false;
    bool initialized_ = false;
};

// The Bluetooth side cannot start with what it was given: the message names what was wrong.
class BluetoothConfigError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The Bluetooth side for as long as the object lives. Made once, on the main thread, before any pipe exists.
// Throws BluetoothConfigError. Its end calls back every operation that is still pending (they read as
// cancelled), so that threads waiting for one can end; other calls must not be started after it.
class BluetoothRuntime {
  public:
    BluetoothRuntime();
    ~BluetoothRuntime();
    BluetoothRuntime(const BluetoothRuntime&) = delete;
    BluetoothRuntime& operator=(const BluetoothRuntime&) = delete;
};

// Signalled once the user asked the program to stop; never reset. Any thread.
Event& stopRequested();

// The same as a plain look: costs no system call. Any thread.
bool isStopRequested() noexcept;

// Signals stopRequested(). Any thread.
void requestStop();

// Writes all of it to standard output, and waits for as long as nobody takes it. False: it cannot be written.
// One thread at a time.
bool writeStandardOutput(std::string_view utf8);

// Ends the process at once: nothing is destroyed, flushed or waited for. For a process that has a thread in a
// call that hangs. Any thread.
[[noreturn]] void endProcess(int exitCode) noexcept;

// The arguments after the program's name, as UTF-8.
std::vector<std::string> programArguments(int argc, char** argv);

// The directory that holds the running executable.
std::filesystem::path executableDirectory();

}  // namespace platform
