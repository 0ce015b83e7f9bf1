// The shell command pipe: the pipe endpoint that both pipes use, and the session that serves its clients.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "platform/pipe.h"

namespace blescanner {

// The server end of one local pipe. An object is created once and closed once. Each link session has a data
// pipe object of its own: a thread of an earlier session finds its pipe closed, and never writes into the
// next one.
//
// Threads: close() and clientLeft() from any thread at any time. Apart from that one thread reads (or
// connects) and one thread writes.
class CNamedPipe {
  public:
    // What creates the host's pipes. Tests replace it by pipes that misbehave, while no other thread runs.
    static inline std::function<platform::Pipe::Created(std::wstring_view)> creator = platform::Pipe::create;

    // Creates the pipe. After an error isOpen() is false.
    platform::SystemError create(const std::wstring& name);

    bool isOpen() const { return pipe_ && pipe_->isOpen(); }
    // Disconnects the client, which loses what it has not read on some hosts, and removes the pipe.
    void close();

    // Logs who has connected.
    void logClient() const;

    // Sends a reply, one byte per UTF-16 unit, and empties the text. Gives up after 100 ms a character.
    void writeText(std::wstring& text);
    // Sends bytes of the link, and returns how many of them the client's end took. Gives up after 50 ms a
    // byte.
    std::size_t writeBytes(std::span<const std::uint8_t> bytes);

    // Blocks until a client is there or the program is asked to stop.
    platform::SystemError connect();
    platform::SystemError startConnect(platform::IoRequest& request);
    platform::IoResult startRead(platform::IoRequest& request, std::span<std::uint8_t> buffer);
    platform::IoResult result(platform::IoRequest& request);
    platform::IoResult cancel(platform::IoRequest& request);
    // Waits, up to the bound, until the client has read what was written. False: it has not, and was dropped.
    bool flush(std::chrono::milliseconds bound);
    void disconnect();
    // No client holds the other end.
    bool clientLeft() const;

    platform::IoRequest readRequest;

  private:
    platform::IoResult write(std::span<const std::uint8_t> bytes, std::int64_t msPerByte);

    std::shared_ptr<platform::Pipe> pipe_;
    platform::SystemError createError_ = platform::SystemError::none;
    platform::IoRequest writeRequest_;
};

// Creates the data pipe under the name from the settings. A failure is logged; the endpoint is then not open.
std::shared_ptr<CNamedPipe> createDataPipe();

// Body of the shell thread: creates the command pipe, makes sure that Bluetooth is usable and serves one
// client after another. Returns when the program is to end.
void runShellSession();

}  // namespace blescanner
