// Named pipes with overlapped I/O.

#include "platform/pipe.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <mutex>
#include <span>
#include <thread>

#include "handle.h"
#include "io_request.h"
#include "platform/runtime.h"
#include "system_error.h"
#include "win32/system_function.h"

namespace platform {

namespace {

constexpr DWORD kBufferSize = 4096;
constexpr DWORD kDefaultTimeoutMs = 5000;
// What a client still gets for reading once the program was asked to stop.
constexpr std::chrono::milliseconds kFlushTimeoutAtEnd{1000};

using ClientNumber = BOOL WINAPI(HANDLE, ULONG*);
using ClientName = BOOL WINAPI(HANDLE, wchar_t*, ULONG);

std::uint32_t clientNumber(HANDLE pipe, const char* function) {
    const auto ask = systemFunction<ClientNumber>(L"kernel32.dll", function);
    ULONG number = 0;
    return ask && ask(pipe, &number) ? number : 0;
}

// Empty also for a client on this machine: the system names others only.
std::wstring clientComputerName(HANDLE pipe) {
    const auto ask = systemFunction<ClientName>(L"kernel32.dll", "GetNamedPipeClientComputerNameW");
    std::array<wchar_t, 260> name{};
    if (!ask || !ask(pipe, name.data(), sizeof name)) return {};
    name.back() = L'\0';
    return name.data();
}

// What ntdll.dll tells of a pipe, as the driver kit's headers declare it. The documented calls do not see
// that a client has left while bytes of its are unread.
struct PipeLocalInformation {
    ULONG type, configuration, maximumInstances, currentInstances, inboundQuota, readDataAvailable,
        outboundQuota, writeQuotaAvailable, state, end;
};
constexpr ULONG kPipeLocalInformation = 24;
constexpr ULONG kConnectedState = 3;

struct IoStatus {
    void* status;
    ULONG_PTR information;
};
using QueryInformation = LONG NTAPI(HANDLE, IoStatus*, void*, ULONG, ULONG);

// The connected state, too, where the system does not tell.
ULONG pipeState(HANDLE pipe) {
    const auto query = systemFunction<QueryInformation>(L"ntdll.dll", "NtQueryInformationFile");
    IoStatus status{};
    PipeLocalInformation information{};
    const bool told =
        query && query(pipe, &status, &information, sizeof information, kPipeLocalInformation) >= 0;
    return told ? information.state : kConnectedState;
}

constexpr auto kStillBusy = static_cast<SystemError>(ERROR_BUSY);

// The handle is used under the lock only, and nothing that is called under it waits: so it can be closed by
// any thread at any time, without a call ever reaching another pipe that was given the same handle since. The
// handle is not shared for longer than that, as the pipe's one instance has to be free when close() returns.
class NamedPipe : public Pipe {
  public:
    explicit NamedPipe(Handle handle) : handle_(std::move(handle)) {}
    ~NamedPipe() override { close(); }

    SystemError startConnect(IoRequest& request) override;
    IoResult startRead(IoRequest& request, std::span<std::uint8_t> buffer) override;
    IoResult startWrite(IoRequest& request, std::span<const std::uint8_t> buffer) override;
    IoResult result(IoRequest& request) override { return outcome(request, false); }
    IoResult cancel(IoRequest& request) override;
    bool flush(std::chrono::milliseconds bound) override;
    bool clientLeft() const override;
    void disconnect() override;
    void close() override;
    bool isOpen() const override;
    ClientIdentity client() const override;

  private:
    IoResult outcome(IoRequest& request, bool wait);
    Handle duplicate() const;

    mutable std::mutex mutex_;
    Handle handle_;
};

SystemError NamedPipe::startConnect(IoRequest& request) {
    if (request.impl().pending()) return kStillBusy;
    const std::lock_guard lock(mutex_);
    if (!handle_) return request.impl().fail(SystemError::operationAborted).error;
    return request.impl().startConnect(handle_.get());
}

IoResult NamedPipe::startRead(IoRequest& request, std::span<std::uint8_t> buffer) {
    using State = IoRequest::Impl::State;
    if (request.impl().state == State::reading) return {SystemError::ioPending, 0};
    if (request.impl().pending()) return {kStillBusy, 0};
    const std::lock_guard lock(mutex_);
    if (!handle_) return request.impl().fail(SystemError::operationAborted);
    return request.impl().startRead(handle_.get(), buffer);
}

IoResult NamedPipe::startWrite(IoRequest& request, std::span<const std::uint8_t> buffer) {
    if (request.impl().pending()) return {kStillBusy, 0};
    const std::lock_guard lock(mutex_);
    if (!handle_) return request.impl().fail(SystemError::operationAborted);
    return request.impl().startWrite(handle_.get(), buffer);
}

// The operation has let go of the buffer when this returns. It has finished by itself, or is about to be
// ended by us or by close().
IoResult NamedPipe::cancel(IoRequest& request) {
    if (request.impl().pending()) {
        const std::lock_guard lock(mutex_);
        if (handle_) ::CancelIoEx(handle_.get(), &request.impl().overlapped);
    }
    return outcome(request, true);
}

IoResult NamedPipe::outcome(IoRequest& request, bool wait) {
    IoResult result = request.impl().fetch(wait);
    const bool failed = result.error != SystemError::none && result.error != SystemError::ioPending;
    if (failed && !isOpen()) result.error = SystemError::operationAborted;
    return result;
}

Handle NamedPipe::duplicate() const {
    const std::lock_guard lock(mutex_);
    const HANDLE process = ::GetCurrentProcess();
    HANDLE copy = nullptr;
    if (handle_) ::DuplicateHandle(process, handle_.get(), process, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS);
    return Handle(copy);
}

// FlushFileBuffers waits for the client to read for as long as there is one, so it runs on a thread of its
// own. A client that does not read in time is dropped here already: that ends the call, and disconnect()
// would do the same.
bool NamedPipe::flush(std::chrono::milliseconds bound) {
    using Clock = std::chrono::steady_clock;
    const Handle pipe = duplicate();
    if (!pipe) return true;
    Event flushed;
    std::thread flusher([&] {
        ::FlushFileBuffers(pipe.get());
        flushed.set();
    });
    const std::array<Event*, 2> events{&flushed, &stopRequested()};
    const auto deadline = Clock::now() + bound;
    auto ended = waitAny(events, bound);
    if (ended == 1U) {
        const auto left = std::min<Clock::duration>(deadline - Clock::now(), kFlushTimeoutAtEnd);
        ended = waitAny(std::span(events).first(1), left);
    }
    if (ended != 0U) disconnect();
    flusher.join();
    return ended == 0U;
}

bool NamedPipe::clientLeft() const {
    const std::lock_guard lock(mutex_);
    return !handle_ || pipeState(handle_.get()) != kConnectedState;
}

void NamedPipe::disconnect() {
    const std::lock_guard lock(mutex_);
    if (handle_) ::DisconnectNamedPipe(handle_.get());
}

void NamedPipe::close() {
    const std::lock_guard lock(mutex_);
    if (!handle_) return;
    ::CancelIoEx(handle_.get(), nullptr);  // of every thread
    ::DisconnectNamedPipe(handle_.get());  // also ends a flush on a duplicate
    handle_ = Handle();
}

bool NamedPipe::isOpen() const {
    const std::lock_guard lock(mutex_);
    return static_cast<bool>(handle_);
}

ClientIdentity NamedPipe::client() const {
    const std::lock_guard lock(mutex_);
    if (!handle_) return {};
    return {clientNumber(handle_.get(), "GetNamedPipeClientProcessId"),
            clientNumber(handle_.get(), "GetNamedPipeClientSessionId"), clientComputerName(handle_.get())};
}

}  // namespace

Pipe::Created Pipe::create(std::wstring_view name) {
    Handle handle(::CreateNamedPipeW(std::wstring(name).c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                     PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, 1, kBufferSize,
                                     kBufferSize, kDefaultTimeoutMs, nullptr));
    if (!handle) return {nullptr, lastSystemError()};
    return {std::make_shared<NamedPipe>(std::move(handle)), SystemError::none};
}

}  // namespace platform
