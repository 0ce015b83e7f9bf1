#include <algorithm>
#include <array>
#include <chrono>
#include <loguru.hpp>
#include <optional>
#include <span>

#include "blescanner.h"
#include "cmdpipe.h"
#include "lecomm.h"
#include "waiting.h"

namespace blescanner {

using namespace std::chrono_literals;
using platform::SystemError;

namespace {

constexpr std::size_t kReadSize = 2048;
constexpr auto kReadWait = 250ms;   // bounds how late a stop is noticed
constexpr auto kCreditWait = 20ms;  // between two looks at the connection while there are no credits
constexpr int kCreditWaitsToTell = 50;
constexpr const char* kNoPipe = "No I/O pipe (most likely disconnected)!";

class DataPump {
  public:
    explicit DataPump(const std::shared_ptr<TioContext>& context)
        : shared_(context), context_(*context), pipe_(context->dataPipeOwner) {}
    ~DataPump();
    DataPump(const DataPump&) = delete;
    DataPump& operator=(const DataPump&) = delete;

    void run();

  private:
    bool startConnection();
    void serve();
    void watchSession();
    void transfer();
    void issuePipeRead();
    std::size_t waitPipeRead();
    void sendToPeripheral(std::span<const std::uint8_t> bytes);
    // Returns the status of the write; nothing when it failed with an error.
    std::optional<platform::GattCommunicationStatus> writeChunk(std::span<const std::uint8_t> chunk);
    void sendChunk(std::span<const std::uint8_t> chunk);
    bool waitForCredits();

    std::shared_ptr<TioContext> shared_;
    TioContext& context_;
    std::shared_ptr<CNamedPipe> pipe_;
    platform::IoRequest request_;
    bool reading_ = false;  // a read was started, and its outcome has not been fetched
    std::array<std::uint8_t, kReadSize> buffer_{};
    // The error of the last operation on the pipe.
    SystemError lastError_ = SystemError::ioPending;
};

// Bytes that were accepted from the client and will not be sent.
class UnsentBytes {
  public:
    explicit UnsentBytes(std::size_t count) : left(count) {}
    ~UnsentBytes() {
        if (left > 0) LOG_S(WARNING) << "Link: " << left << " bytes of the client not sent";
    }
    UnsentBytes(const UnsentBytes&) = delete;
    UnsentBytes& operator=(const UnsentBytes&) = delete;

    std::size_t left;
};

// A read that is still pending must not outlive its buffer. One that has finished meanwhile has taken bytes
// from the client that will not be sent.
DataPump::~DataPump() {
    const platform::IoResult last = pipe_->cancel(request_);
    const UnsentBytes unsent(reading_ && last.error == SystemError::none ? last.bytes : 0);
}

void DataPump::run() {
    if (!startConnection()) return;
    try {
        serve();
    } catch (const Stopped&) {
        // The stop was noticed during a write or a sleep. Otherwise the loop sees that the pipe is gone.
        LOG_S(ERROR) << kNoPipe;
    }
    LOG_S(INFO) << "TX thread completed!";
}

void DataPump::serve() {
    // The client is told to open the data pipe only now. Not when the link has dropped meanwhile: there is no
    // pipe any more that it could open.
    notifyWhileLinked(context_, L"CONNECT TIO\r\n");
    context_.stop.check();
    watchSession();
    LOG_S(INFO) << "Starting communication loop...";
    transfer();
}

bool DataPump::startConnection() {
    if (!context_.dataPipe) return true;
    lastError_ = pipe_->startConnect(request_);
    if (lastError_ == SystemError::pipeConnected && context_.dataPipe) {
        LOG_S(INFO) << "ERROR_PIPE_CONNECTED, trying disconnect first!";
        pipe_->disconnect();
        lastError_ = pipe_->startConnect(request_);
    }
    if (lastError_ == SystemError::ioPending) return true;
    if (!context_.dataPipe) return true;  // the link was stopped and the pipe closed during the call
    LOG_S(INFO) << "ConnectNamedPipe() for pipe failed with error " << platform::number(lastError_);
    notifyClient(context_, L"ERROR TIO\r\n");
    return false;
}

void DataPump::watchSession() {
    if (isOlderThanThresholdBuild()) {
        LOG_S(WARNING) << "GATT status callback not implemented for older Windows API!";
        return;
    }
    const auto session = context_.service->session();
    context_.stop.check();
    // Lives as long as the context's other subscriptions.
    context_.subscriptions.push_back(session->onSessionStatusChanged(
        [context = std::weak_ptr(shared_)](platform::GattSessionStatus status) {
            if (const auto alive = context.lock()) onSessionStatusChanged(alive, status);
        }));
}

void DataPump::transfer() {
    while (context_.dataPipe) {
        context_.lostToClient.tellDue();
        if (const std::size_t count = waitPipeRead(); count > 0) {
            LOG_S(INFO) << "SND=" << count;
            sendToPeripheral({buffer_.data(), count});
            LOG_S(INFO) << "SNT=" << count;
            issuePipeRead();
            continue;
        }
        if (lastError_ == SystemError::ioPending) continue;
        LOG_S(INFO) << "W! " << platform::number(lastError_) << ":"
                    << static_cast<const void*>(&request_.event());
        if (lastError_ == SystemError::brokenPipe) {
            LOG_S(ERROR) << "Data pipe broken (disconnected)!";
            return;
        }
    }
    LOG_S(ERROR) << kNoPipe;
}

std::size_t DataPump::waitPipeRead() {
    platform::Event* const events[] = {&request_.event()};
    if (!platform::waitAny(events, kReadWait)) return 0;
    request_.event().reset();
    if (!context_.dataPipe) return 0;
    const platform::IoResult read = pipe_->result(request_);
    reading_ = false;
    if (read.error != SystemError::none) {
        LOG_S(ERROR) << "ERR(OVL)";
        lastError_ = read.error;
        return 0;
    }
    // The client has connected, which shows as an empty result: the session's first read starts here.
    if (read.bytes == 0) issuePipeRead();
    return read.bytes;
}

void DataPump::issuePipeRead() {
    if (!context_.dataPipe) {
        LOG_S(ERROR) << "ERR(X)";
        return;
    }
    // A read that ends at once is signalled through the event like any other.
    const SystemError error = pipe_->startRead(request_, buffer_).error;
    reading_ = true;
    if (error == SystemError::none) return;
    lastError_ = error;
    if (error != SystemError::ioPending) LOG_S(INFO) << "ERR(R)= (" << platform::number(error) << ")";
}

void DataPump::sendToPeripheral(std::span<const std::uint8_t> bytes) {
    UnsentBytes unsent(bytes.size());
    int creditWaits = 0;
    while (unsent.left > 0 && context_.dataPipe) {
        if (context_.remoteCredits == 0) {
            if (++creditWaits == kCreditWaitsToTell)
                LOG_S(WARNING) << "Link: the peripheral grants no credits";
            if (!waitForCredits()) return;
            continue;
        }
        creditWaits = 0;
        const auto mtu = static_cast<std::size_t>(std::max(context_.txMtu.load(), 1));
        const auto chunk = bytes.last(unsent.left).first(std::min(unsent.left, mtu));
        sendChunk(chunk);
        unsent.left -= chunk.size();
    }
}

std::optional<platform::GattCommunicationStatus> DataPump::writeChunk(std::span<const std::uint8_t> chunk) {
    context_.stop.check();
    const auto write =
        context_.rxChar->writeValueAsync(chunk, platform::GattWriteOption::writeWithoutResponse);
    if (!write) throw platform::PlatformError(platform::kEFail, "No operation came back for a data write");
    awaitOperation(*write, context_.stop);
    return recoverOnError(context_, *write);
}

void DataPump::sendChunk(std::span<const std::uint8_t> chunk) {
    context_.remoteCredits.fetch_sub(1);
    // Counted before the peripheral can answer: a client that has the answer may ask for the figure at once.
    context_.txBytes.fetch_add(chunk.size(), std::memory_order_relaxed);
    std::optional<platform::GattCommunicationStatus> status;
    try {
        status = writeChunk(chunk);
    } catch (...) {
        context_.txBytes.fetch_sub(chunk.size(), std::memory_order_relaxed);
        throw;
    }
    if (status == platform::GattCommunicationStatus::success) return;
    LOG_S(WARNING) << "Link: a write of " << chunk.size() << " bytes failed, they may be lost (status "
                   << (status ? statusText(*status) : "error") << ")";
}

// A grant ends the wait at once. False: the peripheral is gone, there will be no credits.
bool DataPump::waitForCredits() {
    context_.creditsArrived.reset();
    // A grant that came before the reset shows in the count.
    if (context_.remoteCredits == 0) context_.stop.sleep(kCreditWait, context_.creditsArrived);
    if (context_.remoteCredits != 0) return true;
    if (!context_.device) {
        LOG_S(ERROR) << "NULL device while waiting for remote credits";
        return false;
    }
    if (context_.device->connectionStatus() == platform::BluetoothConnectionStatus::disconnected) {
        LOG_S(ERROR) << "Disconnect detected while waiting for remote credits";
        return false;
    }
    return true;
}

}  // namespace

void runDataPump(const std::shared_ptr<TioContext>& context) {
    if (!context->rxChar) {
        LOG_S(ERROR) << "TX Thread NULL characteristic!";
        notifyClient(*context, L"ERROR TIO\r\n");
        LOG_S(INFO) << "TX thread completed!";
        return;
    }
    DataPump(context).run();
}

}  // namespace blescanner
