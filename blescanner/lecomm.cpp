#include "lecomm.h"

#include <loguru.hpp>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "cmdpipe.h"
#include "cmdpipe_notification.h"
#include "detached_threads.h"
#include "lescan.h"
#include "platform/address.h"
#include "platform/text.h"

namespace blescanner {

namespace {

// The latest session; the lock covers the exchange of the pointer only.
struct CurrentContext {
    std::mutex mutex;
    std::shared_ptr<TioContext> context = std::make_shared<TioContext>();
};

CurrentContext& current() {
    static CurrentContext instance;
    return instance;
}

void makeCurrent(std::shared_ptr<TioContext> context) {
    CurrentContext& slot = current();
    const std::lock_guard lock(slot.mutex);
    slot.context.swap(context);
}

TioStatistics& statistics() {
    static TioStatistics instance;
    return instance;
}

DetachedThreads& sessionThreads() {
    static DetachedThreads instance;
    return instance;
}

// Called inside a catch block only.
void logUntold(const wchar_t* line) {
    LOG_S(INFO) << "No client to tell: " << platform::toUtf8(line);
}

std::shared_ptr<TioContext> startContext(std::shared_ptr<CNamedPipe> dataPipe) {
    TioStatistics& figures = statistics();
    figures.rxBytesTotal += currentTioContext()->rxBytes;

    auto context = std::make_shared<TioContext>();
    context->dataPipeOwner = std::move(dataPipe);
    context->dataPipe = context->dataPipeOwner.get();
    makeCurrent(context);
    copyShownCredits(*context);
    return context;
}

}  // namespace

std::shared_ptr<TioContext> currentTioContext() {
    CurrentContext& slot = current();
    const std::lock_guard lock(slot.mutex);
    return slot.context;
}

void resetTioContext(TioContext& context) {
    context.subscriptions.clear();
    context.lostToClient.tellRest();
    endLink(context);
    context.localCredits = 0;
    context.remoteCredits = 0;
    context.crtxChar.reset();
    context.crrxChar.reset();
    context.rxChar.reset();
    context.txChar.reset();
    context.txmtuChar.reset();
    context.rxmtuChar.reset();
    context.service.reset();
    context.device.reset();
    context.txMtu = TIO_DEFAULT_MTU;
}

const TioStatistics& copyShownCredits(const TioContext& context) {
    TioStatistics& figures = statistics();
    figures.localCreditsShown = context.localCredits;
    figures.remoteCreditsShown = context.remoteCredits;
    return figures;
}

void logCurrentException() {
    try {
        throw;
    } catch (const std::exception& error) {
        LOG_S(ERROR) << platform::printable(error.what());
    } catch (...) {
    }
}

std::uint64_t parseBleAddress(const std::wstring& text) {
    std::string narrow;
    for (const wchar_t unit : text)
        narrow.push_back(static_cast<char>(unit));
    if (const auto address = platform::parseAddress(narrow)) return *address;
    throw std::runtime_error("invalid BLE address format " + platform::printable(text));
}

int lecommStart(std::shared_ptr<CNamedPipe> dataPipe, const std::wstring& address) {
    if (currentTioContext()->dataPipe) {
        LOG_S(INFO) << "LECOMM already started!";
        return 0;
    }
    std::shared_ptr<TioContext> context;
    try {
        context = startContext(std::move(dataPipe));
        LOG_S(INFO) << "Device ADDR: " << platform::printable(address);
        LOG_S(INFO) << "Service UUID: " << platform::toString(context->serviceUuid);
        // No blank behind these two labels: scripts look for them as they are.
        LOG_S(INFO) << "TX Characteristic:" << platform::toString(context->txUuid);
        LOG_S(INFO) << "RX Characteristic:" << platform::toString(context->rxUuid);

        LOG_S(INFO) << "Trigger a fake event...";
        triggerFakeScanEvent();
        LOG_S(INFO) << "Prepare scanner...";
        sessionThreads().start([context, address] { commThread(context, address); });
        LOG_S(INFO) << "Communication thread detached and running...";
    } catch (...) {
        LOG_S(ERROR) << "Exception in lecommStart" << platform::number(platform::lastSystemError());
        logCurrentException();
        // There is no thread that would end the session.
        if (context) endLink(*context);
    }
    return 0;
}

void onSessionStatusChanged(const std::shared_ptr<TioContext>& context, platform::GattSessionStatus status) {
    switch (status) {
        case platform::GattSessionStatus::active:
            LOG_S(INFO) << "Status is: ACTIVE";
            return;
        case platform::GattSessionStatus::closed:
            LOG_S(INFO) << "Status is: CLOSED";
            notifyWhileLinked(*context, L"STATUS CLOSED\r\n");
            return;
    }
    LOG_S(INFO) << "[UNEXPECTED]: Session status is " << static_cast<int>(status);
}

bool endLink(TioContext& context) {
    const std::lock_guard lock(context.lineOrder);
    return context.dataPipe.exchange(nullptr) != nullptr;
}

void dropLink(TioContext& context) {
    // Once, however many writes fail at the same moment.
    if (endLink(context)) notifyClient(context, L"TIO DROP\r\n");
}

void stopLink(TioContext& context) {
    {
        const std::lock_guard lock(context.lineOrder);
        context.stop.stop();
        context.dataPipe = nullptr;
    }
    linkNotification().discard();
}

void notifyClient(TioContext& context, const wchar_t* line) {
    std::unique_lock lock(context.lineOrder);
    const bool lost = !context.stop.stopped() && !linkNotification().post(line);
    lock.unlock();
    if (lost) logUntold(line);
}

void notifyWhileLinked(TioContext& context, const wchar_t* line) {
    std::unique_lock lock(context.lineOrder);
    const bool lost = context.dataPipe && !context.stop.stopped() && !linkNotification().post(line);
    lock.unlock();
    if (lost) logUntold(line);
}

bool waitForLinkSessions(std::chrono::milliseconds timeout) {
    return sessionThreads().wait(timeout);
}

}  // namespace blescanner
