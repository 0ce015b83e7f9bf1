#include "platform/event.h"

#include <algorithm>
#include <array>
#include <stdexcept>

#include "event_impl.h"
#include "platform/error.h"
#include "system_error.h"

namespace platform {

namespace {

// The largest number that is not INFINITE; some 49 days.
constexpr std::chrono::milliseconds kLongestWait{INFINITE - 1};

}  // namespace

Event::Impl::Impl() : handle(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    if (!handle) throw lastError();
}

Event::Event() : impl_(std::make_unique<Impl>()) {}
Event::~Event() = default;

void Event::set() {
    ::SetEvent(impl_->handle.get());
}

void Event::reset() {
    ::ResetEvent(impl_->handle.get());
}

bool Event::isSet() const {
    return ::WaitForSingleObject(impl_->handle.get(), 0) == WAIT_OBJECT_0;
}

std::optional<std::size_t> waitAny(std::span<Event* const> events, std::chrono::nanoseconds timeout) {
    std::array<HANDLE, MAXIMUM_WAIT_OBJECTS> handles;
    if (events.size() > handles.size()) throw std::invalid_argument("too many events in one wait");
    std::transform(events.begin(), events.end(), handles.begin(),
                   [](Event* event) { return event->impl().handle.get(); });
    const auto limit = std::clamp(std::chrono::ceil<std::chrono::milliseconds>(timeout),
                                  std::chrono::milliseconds::zero(), kLongestWait);
    const DWORD count = static_cast<DWORD>(events.size());
    const DWORD signalled =
        ::WaitForMultipleObjects(count, handles.data(), FALSE, static_cast<DWORD>(limit.count()));
    if (signalled == WAIT_TIMEOUT) return std::nullopt;
    if (signalled >= WAIT_OBJECT_0 + count) throw lastError();
    return signalled - WAIT_OBJECT_0;
}

}  // namespace platform
