// Errors of the platform, in the two shapes that the program's rules and texts know.
//
// Threads: everything here may be called from any thread.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace platform {

// Result code of an object call. Negative is failure. The program prints it as a signed decimal number.
using HResult = std::int32_t;

constexpr HResult hresult(std::uint32_t bits) {
    return static_cast<HResult>(bits);
}

// The object has been closed; a GATT write that fails with it means that the link is gone.
inline constexpr HResult kRoEClosed = hresult(0x80000013);
inline constexpr HResult kEFail = hresult(0x80004005);
inline constexpr HResult kECancelled = hresult(0x800704C7);

// A failed platform call. what() is the message alone, code() the result code.
class PlatformError : public std::runtime_error {
  public:
    PlatformError(HResult code, const std::string& message) : std::runtime_error(message), code_(code) {}
    // With the system's own message text for the code.
    explicit PlatformError(HResult code);

    HResult code() const noexcept { return code_; }

  private:
    HResult code_;
};

// The system's message text for a code (UTF-8, no line end, at most 256 characters); empty when the host has
// none.
std::string systemMessage(HResult code);

// Error number of a system call. The numbers that rules key on have these values on every host; any other
// value is the host's own number and only ever printed.
enum class SystemError : std::uint32_t {
    none = 0,
    brokenPipe = 109,        // the client has closed its end
    noMoreItems = 259,       // an enumeration is over
    pipeConnected = 535,     // a client was there before the connect was started
    operationAborted = 995,  // cancelled, closed, or the program was asked to stop
    ioPending = 997,         // started, not finished
};

constexpr std::uint32_t number(SystemError error) {
    return static_cast<std::uint32_t>(error);
}

// The calling thread's last system error, translated as above.
SystemError lastSystemError() noexcept;

}  // namespace platform
