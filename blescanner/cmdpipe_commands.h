// The text commands of the shell.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "cmdpipe.h"
#include "cmdpipe_line.h"

namespace blescanner {

class StopSignal;

inline constexpr const char* kNoLowEnergy =
    "[WARNING] Bluetooth available on PC but no support for Bluetooth Low Energy (BLE) found!";

// What the session does after a command.
enum class CommandResult { goOn = 0, clientQuits = -1, programEnds = -2 };

// Executes command lines on the shell thread. Owns the data pipe's endpoint: "connect" creates it, and every
// stop of the link closes it.
class CommandSet {
  public:
    // Replies go to `shell`; `stop` ends a command that waits. Both must outlive this.
    CommandSet(CNamedPipe& shell, StopSignal& stop) : shell_(shell), stop_(stop) {}

    // Takes bytes as they were read, and executes every line that they complete, up to one that ends the
    // session. Throws PlatformError, and Stopped.
    CommandResult dispatch(std::span<const std::uint8_t> bytes, LineAccumulator& line);

    // Tell the client, and the log, of Bluetooth that cannot be used: no radio of so many is on; no adapter
    // speaks Low Energy.
    void tellBluetoothUnusable(std::uint32_t radios);
    void tellLowEnergyMissing();

    // Closes the data pipe if it is open.
    void closeDataPipe();
    // Stops the link session and closes the data pipe.
    void closeSession();
    // The same, and gives the session's threads 250 ms to notice.
    void stopSession();

  private:
    CommandResult execute(const std::wstring& line);
    void leScan(const std::wstring& line);
    void connect(const std::wstring& line);
    void stats();
    std::wstring bluetoothStats();
    bool replyIfBluetoothUnusable();
    void reply(std::wstring text);
    void replyAndLog(const wchar_t* text, const char* logged);

    CNamedPipe& shell_;
    StopSignal& stop_;
    std::shared_ptr<CNamedPipe> data_;
};

}  // namespace blescanner
