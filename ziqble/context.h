// What the command line says to every command, how a command tells its outcome, and the texts for it.
#pragma once

#include <asio/signal_set.hpp>
#include <asio/thread_pool.hpp>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

#include "async.h"

namespace ziqble {

// The exit codes. They are a contract with scripts: the manual page lists them.
enum class Code {
    done = 0,
    failed = 1,  // a file, a port or a stream of this side
    usage = 2,
    noBridge = 3,
    busy = 4,    // another client has the pipe
    noLink = 5,  // the link did not come up
    lost = 6,    // the link was lost
    timeOver = 7,
};

// `what` says what was tried and what came of it, `hint` what to do next.
struct Failure : std::runtime_error {
    Failure(Code outcome, const std::string& what, const std::string& hint = {})
        : std::runtime_error(hint.empty() ? what : what + "\n  " + hint), code(outcome) {}

    Code code;
};

// A signal asked for the end.
struct Interrupted {
    int signal;
};

// Lives until the process ends: main() does not wait for calls that block.
struct Context {
    asio::io_context io{1};
    asio::thread_pool blocking{4};       // for calls that block: files, standard streams
    asio::signal_set signals{blocking};  // those that ask for the end
    int endSignal = 0;                   // the one that came
    std::string cmdPipe = R"(\\.\\pipe\ZIQBLESh)";
    std::string datPipe = R"(\\.\\pipe\ZIQBLECOM)";
    bool json = false;
    bool wait = false;
    bool start = false;
    bool sim = false;

    // A line on standard output: the text, or the object with --json. Throws Failure when it cannot be
    // written.
    void print(std::string_view text, const nlohmann::json& object) const;
    // The same on standard error, where a text begins with the program's name.
    void tell(std::string_view text, const nlohmann::json& object) const;
};

// A line on standard error, which begins with the program's name.
void say(std::string_view text);
// Names come in the low bytes of UTF-16; a terminal and JSON want UTF-8.
std::string utf8(std::string_view latin1);
// UTC with milliseconds: 2026-01-31T12:00:00.000Z.
std::string timeStamp();
// One line; what is no UTF-8 in it is replaced.
std::string toText(const nlohmann::json& object);

}  // namespace ziqble
