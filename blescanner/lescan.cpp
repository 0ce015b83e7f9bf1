#include "lescan.h"

#include <algorithm>
#include <chrono>
#include <loguru.hpp>
#include <memory>
#include <mutex>
#include <set>

#include "blehelper.h"
#include "lecomm_profile.h"
#include "platform/address.h"
#include "platform/advertisement.h"
#include "platform/clock.h"
#include "platform/text.h"
#include "reply_text.h"

namespace blescanner {

using platform::AdvertisementReceivedEventArgs;
using platform::ScanningMode;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds kFakeScanDuration{500};
constexpr milliseconds kStopTime{200};

// What a scan has found. The callback shares the ownership, so an advertisement that comes late does no harm.
class ScanEntries {
  public:
    void add(std::wstring entry) {
        const std::lock_guard guard(mutex_);
        entries_.insert(std::move(entry));
    }

    std::wstring resultLine() const {
        const std::lock_guard guard(mutex_);
        std::wstring line;
        for (const auto& entry : entries_) {
            if (!line.empty()) line += L',';
            line += entry;
        }
        if (!line.empty()) line += L"\r\n";
        return line;
    }

  private:
    mutable std::mutex mutex_;
    std::set<std::wstring> entries_;
};

long long millisecondsNow() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<milliseconds>(now).count();
}

void handleAdvertisement(const AdvertisementReceivedEventArgs* args, ScanEntries& entries) {
    if (!args) {
        LOG_S(INFO) << "Scan entry with invalid eventArgs";
        return;
    }
    if (!args->serviceUuids) {
        LOG_S(INFO) << "Scan entry with undefined service uuids!";
        return;
    }
    const auto& uuids = *args->serviceUuids;
    if (std::find(uuids.begin(), uuids.end(), TIO_SERVICE_UUID) == uuids.end()) return;

    const std::string address = platform::formatAddress(args->bluetoothAddress);
    LOG_S(INFO) << millisecondsNow() << ": Target service found on device: " << address;
    std::wstring entry = platform::widen(address);
    if (!args->localName.empty()) entry += L";" + withoutControlCharacters(args->localName);
    entries.add(std::move(entry));
}

}  // namespace

void triggerFakeScanEvent() {
    const auto watcher = platform::createAdvertisementWatcher();
    watcher->setScanningMode(ScanningMode::passive);
    // The platform scans only while a handler is registered.
    const auto received = watcher->onReceived([](const AdvertisementReceivedEventArgs*) {});
    watcher->start();
    platform::sleepFor(kFakeScanDuration);
    watcher->stop();
}

void scanForTioDevices(std::wstring& result, std::uint32_t durationMs, const std::function<bool()>& wanted) {
    LOG_S(INFO) << "Trigger a fake event...";
    triggerFakeScanEvent();

    LOG_S(INFO) << "Prepare scanner...";
    const auto entries = std::make_shared<ScanEntries>();
    const auto watcher = platform::createAdvertisementWatcher();
    watcher->setScanningMode(ScanningMode::active);
    auto received = watcher->onReceived([entries](const auto* args) { handleAdvertisement(args, *entries); });

    LOG_S(INFO) << "Configure scan timing...";
    if (setScanIntervals()) {
        LOG_S(INFO) << "Scan timing configured!";
    } else {
        LOG_S(WARNING) << "[WARNING] Scanning with default large window!";
    }

    LOG_S(INFO) << "Start scanning...";
    watcher->start();
    platform::sleepWhile(wanted, milliseconds(durationMs));

    LOG_S(INFO) << "Unregistering BLE scan CB...";
    received.reset();
    LOG_S(INFO) << "Stopping BLE scan...";
    watcher->stop();
    platform::sleepFor(kStopTime);
    result = entries->resultLine();
}

}  // namespace blescanner
