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

bool carryOn(Event& event) {
    Operation* const operation = event.impl().operation;
    return operation && operation->pending() && operation->carryOn();
}

std::optional<std::size_t> firstSignalled(Events events) {
    const auto found =
        std::find_if(events.begin(), events.end(), [](Event* event) { return event->isSet(); });
    if (found == events.end()) return std::nullopt;
    // An operation further ahead whose bytes are there comes first: events that are always signalled cannot
    // starve it.
    const auto ahead = std::find_if(events.begin(), found, [](Event* event) { return carryOn(*event); });
    return static_cast<std::size_t>(ahead - events.begin());
}

void drain(const Descriptor& wake) {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t ignored = ::read(wake.get(), &count, sizeof count);
}

// Two entries for each event: its eventfd and the socket of its operation (none: -1, which poll passes over).
using PollSet = std::array<pollfd, 2 * kMaxEvents>;

// False: interrupted, or an event was signalled before the wait.
bool pollOnce(Events events, PollSet& polled, std::chrono::nanoseconds timeout) {
    for (std::size_t i = 0; i < events.size(); ++i) {
        const Event::Impl& event = events[i]->impl();
        const bool pending = event.operation && event.operation->pending();
        polled[2 * i] = {event.wake.get(), POLLIN, 0};
        polled[2 * i + 1] = pending ? event.operation->pollTarget() : pollfd{-1, 0, 0};
    }
    const auto seconds = std::chrono::floor<std::chrono::seconds>(timeout);
    const timespec limit{seconds.count(), (timeout - seconds).count()};

    const WaiterScope waiter(events);
    if (std::any_of(events.begin(), events.end(), [](Event* event) { return event->isSet(); })) return false;
    if (::ppoll(polled.data(), 2 * events.size(), &limit, nullptr) >= 0) return true;
    if (errno == EINTR) return false;
    throw std::system_error(errno, std::generic_category(), "ppoll");
}

void handleReady(Events events, const PollSet& polled) {
    for (std::size_t i = 0; i < events.size(); ++i) {
        // Readable but not set: left over from a signal that has been reset since. An event that is never
        // reset is never drained, so every one of its waiters wakes. A signal that comes in between is seen
        // in the flag.
        if (polled[2 * i].revents && !events[i]->isSet()) drain(events[i]->impl().wake);
        if (polled[2 * i + 1].revents) carryOn(*events[i]);
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
    if (const auto signalled = firstSignalled(events)) return signalled;

    timeout = std::min<std::chrono::nanoseconds>(timeout, kLongestWait);
    PollSet polled;
    const Clock::time_point deadline = Clock::now() + timeout;
    for (auto left = timeout;; left = deadline - Clock::now()) {
        if (pollOnce(events, polled, std::max(left, std::chrono::nanoseconds::zero()))) {
            handleReady(events, polled);
        }
        if (const auto signalled = firstSignalled(events)) return signalled;
        if (Clock::now() >= deadline) return std::nullopt;
    }
}

}  // namespace platform
