#include <windows.h>

#include <chrono>
#include <optional>
#include <stdexcept>
#include <thread>

#include "pipe.h"

using namespace std::chrono_literals;

namespace {

std::runtime_error failure(const std::string& what) {
    return std::runtime_error(what + ": error " + std::to_string(::GetLastError()));
}

// One direction of the pipe. At most one transfer runs at a time.
class Transfer {
  public:
    explicit Transfer(const HANDLE& pipe) : pipe_(pipe) {
        if (!done_) throw failure("no event");
    }
    ~Transfer() { ::CloseHandle(done_); }
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    // Runs a transfer, which `start` begins with the given record. Returns how many bytes moved; 0 when the
    // other side has closed the pipe; nothing when no byte moved for too long.
    template <class Start>
    std::optional<std::size_t> run(Start start) {
        OVERLAPPED record{};
        record.hEvent = done_;
        if (!start(&record) && ::GetLastError() != ERROR_IO_PENDING) return 0;
        const bool stalled = ::WaitForSingleObject(done_, Pipe::kStallSeconds * 1000) != WAIT_OBJECT_0;
        if (stalled) ::CancelIoEx(pipe_, &record);
        DWORD count = 0;
        const bool moved = ::GetOverlappedResult(pipe_, &record, &count, TRUE);
        if (stalled) return std::nullopt;
        return moved ? count : 0;
    }

  private:
    const HANDLE& pipe_;
    const HANDLE done_ = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
};

}  // namespace

struct Pipe::Impl {
    HANDLE pipe = INVALID_HANDLE_VALUE;
    Transfer read{pipe};
    Transfer write{pipe};

    ~Impl() { ::CloseHandle(pipe); }
};

Pipe::Pipe(const std::string& name) : impl_(std::make_unique<Impl>()) {
    const auto end = std::chrono::steady_clock::now() + kStallSeconds * 1s;
    for (;;) {
        impl_->pipe = ::CreateFileA(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_OVERLAPPED, nullptr);
        if (impl_->pipe != INVALID_HANDLE_VALUE) return;
        if (std::chrono::steady_clock::now() > end) throw failure("cannot open " + name);
        std::this_thread::sleep_for(5ms);
    }
}

Pipe::~Pipe() = default;

std::size_t Pipe::readSome(std::span<std::uint8_t> buffer) {
    const auto count = impl_->read.run([&](OVERLAPPED* record) {
        return ::ReadFile(impl_->pipe, buffer.data(), static_cast<DWORD>(buffer.size()), nullptr, record);
    });
    if (!count) throw std::runtime_error("nothing was received for too long");
    return *count;
}

bool Pipe::writeAll(std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const auto count = impl_->write.run([&](OVERLAPPED* record) {
            return ::WriteFile(impl_->pipe, bytes.data(), static_cast<DWORD>(bytes.size()), nullptr, record);
        });
        if (count.value_or(0) == 0) return false;
        bytes = bytes.subspan(*count);
    }
    return true;
}
