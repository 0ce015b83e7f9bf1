#include "platform/error.h"

#include <cerrno>
#include <cstring>

#include "system_error.h"

namespace platform {

namespace {

struct Message {
    std::uint32_t code;
    const char* text;
};

// The texts that a user of the program finds in logs from Windows, for the codes that Bluetooth calls give.
constexpr Message kMessages[] = {
    {0x80000013, "The object has been closed."},
    {0x8000000E, "A method was called at an unexpected time."},
    {0x80004001, "Not implemented"},
    {0x80004002, "No such interface supported"},
    {0x80004003, "Invalid pointer"},
    {0x80004004, "Operation aborted"},
    {0x80004005, "Unspecified error"},
    {0x8000FFFF, "Catastrophic failure"},
    {0x80070005, "Access is denied."},
    {0x80070057, "The parameter is incorrect."},
    {0x8007001F, "A device attached to the system is not functioning."},
    {0x800703E3,
     "The I/O operation has been aborted because of either a thread exit or an application request."},
    {0x8007048F, "The device is not connected."},
    {0x80070490, "Element not found."},
    {0x800704C7, "The operation was canceled by the user."},
    {0x800705B4, "This operation returned because the timeout period expired."},
    {0x800710DF, "The device is not ready for use."},
};

}  // namespace

std::string systemMessage(HResult code) {
    const auto bits = static_cast<std::uint32_t>(code);
    for (const Message& message : kMessages) {
        if (message.code == bits) return message.text;
    }
    // The facility for system calls carries the system's own number, here an errno.
    const int number = static_cast<int>(bits & 0xFFFF);
    if (bits >> 16 != 0x8007 || number == 0) return {};
    const char* const text = ::strerrordesc_np(number);
    return text ? text : "";
}

SystemError fromErrno(int code) noexcept {
    switch (code) {
        case EPIPE:
        case ECONNRESET:
            return SystemError::brokenPipe;
        case ECANCELED:
            return SystemError::operationAborted;
        case EAGAIN:
        case EINPROGRESS:
            return SystemError::ioPending;
        // Its number is 109, which would read as a broken pipe.
        case ETOOMANYREFS:
            return static_cast<SystemError>(EMFILE);
        default:
            return static_cast<SystemError>(code);
    }
}

SystemError lastSystemError() noexcept {
    return fromErrno(errno);
}

}  // namespace platform
