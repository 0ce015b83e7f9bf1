// The shell command pipe: the pipe endpoint that both pipes use, and the session that serves its clients.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "platform/pipe.h"

namespace blescanner {

// The server end of one local pipe. The pipe is made once per object; a new connection of the data pipe gets
// a new object, so that whoever still holds the old one finds it closed instead of finding its successor.
//
// Threads: close() and clientLeft() from any thread at any time. Apart from that one thread reads (or
// connects) and one thread writes.
class CNamedPipe {
  public:
    // Creates the pipe; afterwards isOpen() tells whether that went well.
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
    // Gives the client up to the bound to read what was written; one that does not is dropped. True when
    // nothing was left unread.
    bool flush(std::chrono::milliseconds bound);
    void disconnect();
    // Nobody is at the other end any more.
    bool clientLeft() const;

    platform::IoRequest readRequest;

  private:
    platform::IoResult finishWrite(platform::IoResult started, std::int64_t timeoutMs);

    std::shared_ptr<platform::Pipe> pipe_;
    platform::SystemError createError_ = platform::SystemError::none;
    platform::IoRequest writeRequest_;
};

// Creates the data pipe under the name from the settings. A failure is logged and leaves the endpoint not
// open.
std::shared_ptr<CNamedPipe> createDataPipe();

// Body of the shell thread: creates the command pipe, makes sure that Bluetooth is usable and serves one
// client after another. Returns when the program is to end.
void runShellSession();

}  // namespace blescanner
