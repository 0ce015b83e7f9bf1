#include <chrono>
#include <loguru.hpp>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "blehelper.h"
#include "bleif_impl.h"
#include "bleif_impl_legacy.h"
#include "blescanner.h"
#include "lecomm.h"
#include "platform/text.h"
#include "platform_error_text.h"

namespace blescanner {

using namespace std::chrono_literals;

namespace {

constexpr std::uint32_t kPrepareTimeoutMs = 30000;

// One session from the address to the end of the transfer.
class CommSession {
  public:
    explicit CommSession(const std::shared_ptr<TioContext>& context) : shared_(context), context_(*context) {}
    // First, because the value-changed handlers use the interface object.
    ~CommSession() { context_.subscriptions.clear(); }
    CommSession(const CommSession&) = delete;
    CommSession& operator=(const CommSession&) = delete;

    void run(const std::wstring& addressText);

  private:
    std::optional<std::uint64_t> parseAddress(const std::wstring& text);
    bool createInterface();
    void retrieveCharacteristics();
    void subscribe();
    void setUp(std::uint64_t address);
    void transfer();
    void serviceMissing();
    void awaitStop();
    void release();
    // Ends the session, then tells the client: a client that acts on the line finds the session ended.
    void fail(const wchar_t* line);

    std::shared_ptr<TioContext> shared_;
    TioContext& context_;
    std::unique_ptr<IBLEIF> interface_;
};

void CommSession::fail(const wchar_t* line) {
    endLink(context_);
    notifyClient(context_, line);
}

std::optional<std::uint64_t> CommSession::parseAddress(const std::wstring& text) {
    try {
        return parseBleAddress(text);
    } catch (const std::exception& error) {
        LOG_S(INFO) << "Could not handle address";
        LOG_S(ERROR) << platform::printable(error.what());
    } catch (...) {
        LOG_S(INFO) << "Could not handle address (unknown exception)";
    }
    return std::nullopt;
}

bool CommSession::createInterface() {
    try {
        if (isOlderThanThresholdBuild()) {
            LOG_S(INFO) << "Using LEGACY interface...";
            interface_ = std::make_unique<BLEIFLegacy>(shared_);
        } else {
            interface_ = std::make_unique<BLEIFModern>(shared_);
        }
        return true;
    } catch (...) {
        LOG_S(ERROR) << "Cannot create BLE interface class!";
        return false;
    }
}

void CommSession::run(const std::wstring& addressText) {
    const auto address = parseAddress(addressText);
    if (!address) return fail(L"ERROR TIO\r\n");
    if (!createInterface()) return fail(L"ERROR TIO\r\n");
    try {
        setUp(*address);
    } catch (const Stopped&) {
        LOG_S(INFO) << "The link session has been stopped";
        release();
    }
    interface_.reset();
    LOG_S(INFO) << "commThread is DONE!";
}

void CommSession::setUp(std::uint64_t address) {
    // A reset that an earlier session has begun would take this link down again.
    while (isBluetoothResetting())
        context_.stop.sleep(100ms);
    context_.stop.check();
    // The result does not matter: without a connection there will be no service.
    interface_->prepareConnection(address, kPrepareTimeoutMs);
    context_.stop.check();
    context_.service = interface_->getService(context_.serviceUuid, address);
    context_.stop.check();
    if (context_.service) {
        transfer();
    } else {
        serviceMissing();
    }
}

void CommSession::release() {
    resetTioContext(context_);
    LOG_S(INFO) << "TIO internal context reset";
}

void CommSession::serviceMissing() {
    endLink(context_);
    if (interface_->needsStackFlush()) {
        LOG_S(INFO) << "Flushing BLE stack...";
        resetTioContext(context_);
        context_.stop.sleep(500ms);
        resetBluetooth(context_.stop);
        LOG_S(INFO) << "Flushing is DONE!";
    }
    fail(L"ERROR TIO\r\n");
}

void CommSession::transfer() {
    context_.stop.sleep(150ms);
    retrieveCharacteristics();
    subscribe();
    context_.stop.sleep(100ms);
    LOG_S(INFO) << "Starting transfer...";
    runDataPump(shared_);
    LOG_S(INFO) << "Redirect to comm pipe ended!";
    awaitStop();
    release();
}

void CommSession::retrieveCharacteristics() {
    const auto retrieve = [this](const char* name, const platform::Guid& uuid) {
        LOG_S(INFO) << "Retrieve " << name << " characteristic...";
        return interface_->getCharacteristic(context_.service, uuid);
    };
    context_.crtxChar = retrieve("TX credits", context_.crtxUuid);
    context_.crrxChar = retrieve("RX credits", context_.crrxUuid);
    context_.rxChar = retrieve("RX", context_.rxUuid);
    context_.txChar = retrieve("TX", context_.txUuid);
    context_.txmtuChar = retrieve("TX MTU", context_.txmtuUuid);
    context_.rxmtuChar = retrieve("RX MTU", context_.rxmtuUuid);
}

// Leaves out the characteristics that the peripheral lacks: the link runs without them.
void CommSession::subscribe() {
    if (context_.txmtuChar) {
        LOG_S(INFO) << "Setting subscriptions (TX MTU)...";
        interface_->__setSubscription(context_.txmtuChar, true);
    }
    if (context_.crtxChar) {
        LOG_S(INFO) << "Setting subscriptions (Credits TX)...";
        interface_->__setSubscription(context_.crtxChar, true);
        context_.stop.sleep(250ms);
    }
    if (context_.txChar) {
        LOG_S(INFO) << "Setting subscriptions (TX)...";
        interface_->__setSubscription(context_.txChar, false);
    }
    if (context_.crrxChar) {
        context_.localCredits = TIO_LOCAL_CREDIT_TARGET;
        LOG_S(INFO) << "Setting credits (Credits RX)...";
        interface_->grantCredits(context_.crrxChar, TIO_LOCAL_CREDIT_TARGET, true);
    }
}

void CommSession::awaitStop() {
    if (!context_.dataPipe) return;
    LOG_S(INFO) << "Expecting disconnect...";
    while (context_.dataPipe) {
        context_.lostToClient.tellDue();
        context_.stop.sleep(100ms);
    }
}

void abandon(const std::shared_ptr<TioContext>& context, const char* logLine) {
    endLink(*context);
    notifyClient(*context, L"ERROR EXP\r\n");
    resetTioContext(*context);
    LOG_S(ERROR) << logLine;
}

}  // namespace

void commThread(const std::shared_ptr<TioContext>& context, const std::wstring& address) {
    // Outside the try block: its end waits for the handlers, of which one may be writing to a client that
    // does not read. A failure is told before that.
    CommSession session(context);
    try {
        session.run(address);
        resetTioContext(*context);  // releases what a failed set-up has stored
    } catch (const platform::PlatformError& error) {
        LOG_S(ERROR) << describe(error) << ":" << platform::printable(error.what());
        abandon(context, "commThread TERM!");
    } catch (...) {
        logCurrentException();
        abandon(context, "commThread TERM (unknown exception) !");
    }
}

}  // namespace blescanner
