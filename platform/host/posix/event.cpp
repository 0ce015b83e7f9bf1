#include "platform/event.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <system_error>

#include "event_impl.h"
#include "operation.h"

namespace platform {

namespace {

using Clock = std::chrono::steady_clock;

// What Windows allows in one wait.
constexpr std::size_t kMaxEvents = 64;
// Long enough to count as for ever, short enough for nanoseconds.
constexpr auto kLongestWait = std::chrono::hours(24 * 365);

using Events = std::span<Event* const>;

// Counts the calling thread as a waiter of all events, so that their setters write the eventfd.
class WaiterScope {
  public:
    explicit WaiterScope(Events events) : events_(events) {
        for (Event* event : events_)
            event->impl().waiters.fetch_add(1);
    }
    ~WaiterScope() {
        for (Event* event : events_)
            event->impl().waiters.fetch_sub(1);
    }
    WaiterScope(const WaiterScope&) = delete;
    WaiterScope& operator=(const WaiterScope&) = delete;

  private:
    Events events_;
};

Operation* pendingOperation(const Event& event) {
    Operation* const operation = event.impl().operation;
    return operation && operation->pending() ? operation : nullptr;
}

bool carryOn(const Event& event) {
    Operation* const operation = pendingOperation(event);
    return operation && operation->carryOn();
}

std::optional<std::size_t> firstSignalled(Events events) {
    const auto found =
        std::find_if(events.begin(), events.end(), [](Event* event) { return event->isSet(); });
    if (found == events.end()) return std::nullopt;
    // Operations in front of it are tried first, so that an event that is always set cannot starve them.
    const auto ahead = std::find_if(events.begin(), found, [](Event* event) { return carryOn(*event); });
    return static_cast<std::size_t>(ahead - events.begin());
}

void drain(const Descriptor& wake) {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t ignored = ::read(wake.get(), &count, sizeof count);
}

// Returns when a setter or the other end of a socket wakes it, at the time-out, or early.
void pollOnce(Events events, std::chrono::nanoseconds timeout) {
    std::array<pollfd, kMaxEvents> polled;
    for (std::size_t i = 0; i < events.size(); ++i) {
        const Operation* const operation = pendingOperation(*events[i]);
        polled[i] = operation ? operation->pollTarget() : pollfd{events[i]->impl().wake.get(), POLLIN, 0};
    }
    const auto seconds = std::chrono::floor<std::chrono::seconds>(timeout);
    const timespec limit{seconds.count(), (timeout - seconds).count()};
    if (::ppoll(polled.data(), events.size(), &limit, nullptr) < 0) {
        if (errno == EINTR) return;
        throw std::system_error(errno, std::generic_category(), "ppoll");
    }
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (polled[i].revents == 0) continue;
        if (polled[i].fd != events[i]->impl().wake.get()) {
            carryOn(*events[i]);
        } else if (!events[i]->isSet()) {
            drain(events[i]->impl().wake);
        }
    }
}

}  // namespace

Event::Impl::Impl() : wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wake) throw std::system_error(errno, std::generic_category(), "eventfd");
}

Event::Event() : impl_(std::make_unique<Impl>()) {}
Event::~Event() = default;

void Event::set() {
    if (impl_->set.exchange(true) || impl_->waiters.load() == 0) return;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t ignored = ::write(impl_->wake.get(), &one, sizeof one);
}

void Event::reset() {
    impl_->set.store(false);
}

bool Event::isSet() const {
    return impl_->set.load();
}

std::optional<std::size_t> waitAny(Events events, std::chrono::nanoseconds timeout) {
    if (events.size() > kMaxEvents) throw std::invalid_argument("too many events in one wait");
    const auto deadline = Clock::now() + std::min<std::chrono::nanoseconds>(timeout, kLongestWait);
    const WaiterScope waiter(events);
    for (;;) {
        if (const auto signalled = firstSignalled(events)) return signalled;
        const auto left = std::max(deadline - Clock::now(), Clock::duration::zero());
        pollOnce(events, left);
        if (left == Clock::duration::zero()) return firstSignalled(events);
    }
}

}  // namespace platform
