#include "lecomm.h"

#include <array>
#include <cstdio>
#include <loguru.hpp>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "cmdpipe.h"
#include "cmdpipe_notification.h"
#include "detached_threads.h"
#include "lescan.h"
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

// Inside a handler only.
void logCurrentException() {
    try {
        throw;
    } catch (const std::exception& error) {
        LOG_S(ERROR) << error.what();
    } catch (...) {
    }
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

std::uint64_t parseBleAddress(const std::wstring& text) {
    std::string narrow;
    for (const wchar_t unit : text)
        narrow.push_back(static_cast<char>(unit));

    std::array<unsigned char, 6> bytes{};
    int consumed = 0;
    const int fields = std::sscanf(narrow.c_str(), "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx%n", &bytes[0], &bytes[1],
                                   &bytes[2], &bytes[3], &bytes[4], &bytes[5], &consumed);
    if (fields != 6 || static_cast<std::size_t>(consumed) != narrow.size()) {
        throw std::runtime_error("invalid BLE address format " + platform::toUtf8(text));
    }
    std::uint64_t address = 0;
    for (const unsigned char byte : bytes)
        address = address << 8 | byte;
    return address;
}

std::string formatBleAddress(std::uint64_t address) {
    std::array<char, 18> text{};
    const auto byte = [address](int index) { return static_cast<unsigned>(address >> (8 * index) & 0xFF); };
    std::snprintf(text.data(), text.size(), "%02x:%02x:%02x:%02x:%02x:%02x", byte(5), byte(4), byte(3),
                  byte(2), byte(1), byte(0));
    return text.data();
}

int lecommStart(std::shared_ptr<CNamedPipe> dataPipe, const std::wstring& address) {
    if (currentTioContext()->dataPipe) {
        LOG_S(INFO) << "LECOMM already started!";
        return 0;
    }
    std::shared_ptr<TioContext> context;
    try {
        context = startContext(std::move(dataPipe));
        LOG_S(INFO) << "Device ADDR: " << platform::toUtf8(address);
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
        // Without a thread the session must not look as if it ran.
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
            notifyWhileLinked(context, L"STATUS CLOSED\r\n");
            return;
    }
    LOG_S(INFO) << "[UNEXPECTED]: Session status is " << static_cast<int>(status);
}

bool endLink(TioContext& context) {
    const std::lock_guard lock(context.lineOrder);
    return context.dataPipe.exchange(nullptr) != nullptr;
}

void notifyClient(const std::shared_ptr<const TioContext>& context, const wchar_t* line) {
    linkNotification().post({line, context});
}

void notifyWhileLinked(const std::shared_ptr<TioContext>& context, const wchar_t* line) {
    const std::lock_guard lock(context->lineOrder);
    if (context->dataPipe) notifyClient(context, line);
}

bool waitForLinkSessions(std::chrono::milliseconds timeout) {
    return sessionThreads().wait(timeout);
}

}  // namespace blescanner
