#include "io_request.h"

namespace platform {

IoRequest::IoRequest() : impl_(std::make_unique<Impl>()) {}
IoRequest::~IoRequest() = default;
Event& IoRequest::event() {
    return impl_->event;
}

void IoRequest::Impl::prepare(State next) {
    overlapped = {};
    overlapped.hEvent = event.impl().handle.get();
    state = next;
}

IoResult IoRequest::Impl::finish(IoResult outcome) {
    state = State::idle;
    return result = outcome;
}

IoResult IoRequest::Impl::fail(SystemError error) {
    event.set();
    return finish({error, 0});
}

IoResult IoRequest::Impl::started(BOOL succeeded) {
    if (succeeded) return fetch(true);
    const SystemError error = lastSystemError();
    return error == SystemError::ioPending ? IoResult{error, 0} : fail(error);
}

SystemError IoRequest::Impl::startConnect(HANDLE pipe) {
    prepare(State::connecting);
    // With a record it never reports success by itself.
    if (::ConnectNamedPipe(pipe, &overlapped)) return SystemError::ioPending;
    switch (::GetLastError()) {
        case ERROR_IO_PENDING:
            return SystemError::ioPending;
        // A client came first; in the second case it has left since, which shows when its bytes are read.
        case ERROR_PIPE_CONNECTED:
        case ERROR_NO_DATA:
            return fail(SystemError::pipeConnected).error;
        default:
            return fail(lastSystemError()).error;
    }
}

IoResult IoRequest::Impl::startRead(HANDLE pipe, std::span<std::uint8_t> buffer) {
    prepare(State::reading);
    return started(::ReadFile(pipe, buffer.data(), static_cast<DWORD>(buffer.size()), nullptr, &overlapped));
}

IoResult IoRequest::Impl::startWrite(HANDLE pipe, std::span<const std::uint8_t> buffer) {
    prepare(State::writing);
    return started(::WriteFile(pipe, buffer.data(), static_cast<DWORD>(buffer.size()), nullptr, &overlapped));
}

IoResult IoRequest::Impl::fetch(bool wait) {
    if (!pending()) return result;
    DWORD bytes = 0;
    // The handle would matter to a record without an event only.
    const BOOL succeeded = ::GetOverlappedResult(nullptr, &overlapped, &bytes, wait);
    const DWORD error = succeeded ? ERROR_SUCCESS : ::GetLastError();
    if (error == ERROR_IO_INCOMPLETE) return {SystemError::ioPending, 0};
    return finish({fromWindows(error), bytes});
}

}  // namespace platform
