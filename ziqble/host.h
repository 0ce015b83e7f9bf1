// What ziqble asks of the system: one implementation in posix/, one in windows/. For the thread of the
// io_context.
#pragma once

#include <asio/ip/tcp.hpp>
#include <memory>
#include <string>
#include <vector>

#include "async.h"
#include "pipe_stream.h"  // PipeStream and what is special about it: posix/ or windows/

namespace ziqble::host {

// Opens a pipe of the bridge at once or fails. The name is the bridge's, see docs/protocol.md. Little can
// wait in the pipe for the bridge, so that little can be lost there.
PipeStream openPipe(asio::io_context& io, const std::string& name, asio::error_code& error);
bool isBusy(const asio::error_code& error);     // another client has the pipe
bool isMissing(const asio::error_code& error);  // there is no bridge

// Whether the other end has closed its half, also while bytes from it wait to be read.
bool hasHungUp(asio::ip::tcp::socket& socket);

bool isTerminal(int stream);
// The keyboard gives every key at once and unechoed until the result is destroyed.
std::shared_ptr<void> rawTerminal();

// A program that runs beside this one, its output thrown away. It ends with the object, within a few seconds.
class Child {
  public:
    // Takes the program that lies beside ziqble, else the one on the PATH. Throws Failure.
    Child(const std::string& program, std::vector<std::string> arguments);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool running();

  private:
    std::intptr_t process_ = 0;
    bool running_ = true;
};

// To be called once, first. A closed pipe is an error of the write then, not the end.
void prepareProcess();
// The signals that ask for the end of a program.
const std::vector<int>& endSignals();

}  // namespace ziqble::host
