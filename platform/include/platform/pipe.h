// Local pipes: the server end of a byte stream with one instance and one client at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "platform/error.h"
#include "platform/event.h"

namespace platform {

// Outcome of an operation. error none: finished, `bytes` were moved. error ioPending: started, its event will
// be signalled. Anything else: failed; `bytes` were moved before it did (writes only).
struct IoResult {
    SystemError error = SystemError::none;
    std::size_t bytes = 0;
};

// One outstanding operation with its event. Used by one thread at a time. The event is signalled when the
// operation has finished, at once or later, well or not, and reset when the next one is started. Must outlive
// its operation: finish or cancel it first.
class IoRequest {
  public:
    IoRequest();
    ~IoRequest();
    IoRequest(const IoRequest&) = delete;
    IoRequest& operator=(const IoRequest&) = delete;

    Event& event();

    struct Impl;  // the host's
    Impl& impl() { return *impl_; }

  private:
    std::unique_ptr<Impl> impl_;
};

// Who is at the other end, as far as the host tells (zeros and an empty name where it does not).
struct ClientIdentity {
    std::uint32_t processId = 0;
    std::uint32_t sessionId = 0;
    std::wstring computerName;
};

// Threads: close() and disconnect() may be called from any thread while others use the pipe; their operations
// then end with an error, and none ever touches another pipe's handle. Apart from that one thread reads and
// one writes. Buffers given to a started operation belong to it until it has finished or cancel() returned.
class Pipe {
  public:
    struct Created;

    // Creates the pipe: duplex byte stream, one instance, 4096-byte buffers, a default time-out of 5000 ms
    // where the host knows one. Names: on Windows as given; on POSIX hosts "\\.\pipe\NAME" (also with doubled
    // separators) is the socket NAME in the user's runtime directory, any other name is a path. A socket left
    // behind by a dead process is replaced; one in use, a path too long for a socket and a missing directory
    // are errors.
    static Created create(std::wstring_view name);

    virtual ~Pipe() = default;

    // Waits for a client; one that is already there is taken. operationAborted when the program was asked to
    // stop.
    SystemError connect();

    // Starts to wait for a client. pipeConnected: a client came between create() and this call; it stays
    // connected. Otherwise ioPending; the request finishes with 0 bytes when a client came.
    virtual SystemError startConnect(IoRequest& request) = 0;

    // Reads up to buffer.size() bytes (at least one). A read on a request whose read is still pending, or
    // has finished since without result() having told, keeps that one, its buffer included, and answers
    // ioPending. brokenPipe: the client has closed its end.
    virtual IoResult startRead(IoRequest& request, std::span<std::uint8_t> buffer) = 0;

    // Writes the whole buffer. brokenPipe: the client has gone.
    virtual IoResult startWrite(IoRequest& request, std::span<const std::uint8_t> buffer) = 0;

    // The outcome of a started operation, without waiting.
    virtual IoResult result(IoRequest& request) = 0;

    // Ends the pending operation, if there is one, and returns its outcome: what it had moved by then.
    virtual IoResult cancel(IoRequest& request) = 0;

    // Waits until the operation has ended, and returns its outcome. It is cancelled once the time-out has
    // passed or the program was asked to stop.
    virtual IoResult finish(IoRequest& request, std::chrono::milliseconds timeout);

    // Waits until the client has left or can read everything that was written even after disconnect(). Not
    // longer than the bound, nor than 1 s once the program was asked to stop. False: the client did not read
    // it in time, and was dropped.
    virtual bool flush(std::chrono::milliseconds bound) = 0;
    // Nobody holds the client's end any more, or there never was a client. Looks without waiting, and takes
    // nothing out of the pipe. A client that has only ended its sending still reads: it has not left.
    virtual bool clientLeft() const = 0;
    // Drops the client; another can connect after the next connect() or startConnect().
    virtual void disconnect() = 0;
    // Drops the client and removes the pipe. Further operations fail with operationAborted.
    virtual void close() = 0;
    virtual bool isOpen() const = 0;

    // Of the connected client.
    virtual ClientIdentity client() const = 0;
};

// `pipe` is null when `error` is set.
struct Pipe::Created {
    std::shared_ptr<Pipe> pipe;
    SystemError error = SystemError::none;
};

}  // namespace platform
