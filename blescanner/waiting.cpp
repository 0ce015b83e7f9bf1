#include "waiting.h"

#include <array>
#include <loguru.hpp>

#include "lecomm.h"
#include "platform/clock.h"
#include "platform/runtime.h"

namespace blescanner {

using namespace std::chrono_literals;
using platform::AsyncStatus;
using platform::GattCommunicationStatus;

namespace {
constexpr auto kUnusuallyLong = 1000ms;
constexpr auto kBetweenCalls = 100ms;
}  // namespace

void StopSignal::stop() {
    stopped_ = true;
    event_.set();
}

bool StopSignal::stopped() const {
    return stopped_ || platform::isStopRequested();
}

void StopSignal::check() const {
    if (stopped()) throw Stopped();
}

void StopSignal::sleep(std::chrono::milliseconds duration) {
    platform::sleepFor(duration, {&event_});
    check();
}

void StopSignal::sleep(std::chrono::milliseconds duration, platform::Event& waker) {
    platform::sleepFor(duration, {&event_, &waker});
    check();
}

StopSignal& programEnd() {
    // Never destroyed: detached threads may still look at it while the process ends.
    static StopSignal& instance = *new StopSignal;
    return instance;
}

void awaitOperation(const platform::AsyncInfo& operation, StopSignal& stop) {
    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> nextCall;
    while (operation.status() == AsyncStatus::started) {
        stop.check();
        platform::sleepFor(std::chrono::milliseconds(0));
        const auto now = Clock::now();
        if (!nextCall) nextCall = now + kUnusuallyLong;
        if (now < *nextCall) continue;
        stop.waitingLong();
        nextCall = now + kBetweenCalls;
    }
    stop.check();
    switch (operation.status()) {
        case AsyncStatus::error: {
            const platform::HResult code = operation.errorCode();
            LOG_S(ERROR) << "Error on op: " << operation.typeName() << " ( " << code << ":"
                         << platform::systemMessage(code) << " )";
            break;
        }
        case AsyncStatus::canceled:
            LOG_S(ERROR) << "Cancel on op: " << operation.typeName();
            break;
        case AsyncStatus::started:
        case AsyncStatus::completed:
            break;
    }
}

std::optional<GattCommunicationStatus> recoverOnError(TioContext& context, GattWriteOperation& operation) {
    if (operation.status() != AsyncStatus::error) {
        const GattCommunicationStatus status = operation.getResults();
        if (status == GattCommunicationStatus::unreachable) {
            LOG_S(ERROR) << "Unreachable endpoint! Signalling connection drop!";
            dropLink(context);
        }
        return status;
    }
    const platform::HResult code = operation.errorCode();
    if (code == platform::kRoEClosed) {
        LOG_S(ERROR) << "The object has been closed (RO_E_CLOSED)! Signalling connection drop!";
        dropLink(context);
    } else {
        LOG_S(ERROR) << "Recover on error: " << code << ":" << platform::systemMessage(code);
    }
    return std::nullopt;
}

std::string statusText(GattCommunicationStatus status) {
    static constexpr std::array kNames = {"success", "unreachable", "protocol error", "access denied"};
    const auto number = static_cast<std::size_t>(status);
    return std::to_string(number) + (number < kNames.size() ? " (" + std::string(kNames[number]) + ")" : "");
}

}  // namespace blescanner
