#include "cmdpipe_commands.h"

#include <chrono>
#include <loguru.hpp>
#include <sstream>
#include <vector>

#include "blehelper.h"
#include "blescanner.h"
#include "lecomm.h"
#include "lescan.h"
#include "platform/clock.h"
#include "platform/text.h"
#include "reply_text.h"

namespace blescanner {

using namespace std::chrono_literals;

namespace {

constexpr auto kStopGrace = 250ms;
constexpr std::uint32_t kShortestScanMs = 1000;

// The milliseconds of "lescan MS"; 0 where there is no usable number.
std::uint32_t scanTimeout(const std::wstring& line) {
    std::wistringstream words(line);
    std::wstring command;
    words >> command >> std::ws;
    // A stream reads a negative text as a huge unsigned number, which would keep the shell scanning for
    // weeks.
    std::uint32_t timeout = 0;
    if (words.peek() == L'-' || !(words >> timeout)) return 0;
    return timeout;
}

}  // namespace

CommandResult CommandSet::dispatch(std::span<const std::uint8_t> bytes, LineAccumulator& line) {
    for (const std::uint8_t byte : bytes) {
        if (!line.add(byte)) continue;
        line.lower();
        const std::string shown = platform::toUtf8(line.shownText());
        LOG_S(INFO) << "SHELL INPUT: " << shown;
        if (line.tooLong()) {
            LOG_S(ERROR) << "Unknown command: " << shown;
            line.clear();
            continue;
        }
        const std::wstring command = line.text();
        line.clear();
        const CommandResult result = execute(command);
        if (result != CommandResult::goOn) return result;
    }
    return CommandResult::goOn;
}

CommandResult CommandSet::execute(const std::wstring& line) {
    if (line == L"quit") {
        LOG_S(INFO) << "Received a terminate shell command";
        return CommandResult::clientQuits;
    }
    if (line == L"exit") {
        terminateApplication();
        return CommandResult::programEnds;
    }
    if (line.starts_with(L"lescan")) {
        leScan(line);
    } else if (line.starts_with(L"connect")) {
        connect(line);
    } else if (line.starts_with(L"disconnect")) {
        stopLink();
        reply(L"OK\r\n");
    } else if (line.starts_with(L"stats")) {
        stats();
    } else if (line.starts_with(L"resetbt")) {
        resetBluetooth();
        reply(L"OK\r\n");
    } else {
        LOG_S(ERROR) << "Unknown command: " << platform::toUtf8(line);
    }
    return CommandResult::goOn;
}

void CommandSet::terminateApplication() {
    LOG_S(INFO) << "Received a terminate APP command";
    stopLink();
    platform::sleepFor(kStopGrace);
}

void CommandSet::closeDataPipe() {
    if (!data_) return;
    data_->close();
    data_.reset();
}

void CommandSet::closeLink() {
    const auto session = currentTioContext();
    session->stoppedByShell = true;
    // The reference goes first: whoever wakes up because the pipe is closed finds the session stopped.
    endLink(*session);
    closeDataPipe();
}

void CommandSet::stopLink() {
    closeLink();
    platform::sleepFor(kStopGrace);
}

void CommandSet::reply(std::wstring text) {
    shell_.writeText(text);
}

bool CommandSet::replyIfBluetoothUnusable() {
    std::uint32_t radios = 0;
    if (checkBluetoothRadio(radios, false) == RadioCheckResult::BluetoothOn) return false;
    if (radios != 0) {
        reply(L"BLE DISABLED!\r\n");
        LOG_S(INFO) << "BLE DISABLED\r\n";  // without the reply's "!", on purpose
    } else {
        reply(L"BLE NOT FOUND\r\n");
        LOG_S(INFO) << "BLE NOT FOUND\r\n";
    }
    return true;
}

void CommandSet::leScan(const std::wstring& line) {
    if (replyIfBluetoothUnusable()) return;

    std::uint32_t leAdapters = 0;
    if (getBLEProtocolSupport(&leAdapters)) {
        if (leAdapters == 0) {
            // The scan still follows: an adapter may see advertisements though its version could not be read.
            LOG_S(WARNING)
                << "[WARNING] Bluetooth available on PC but no support for Bluetooth Low Energy (BLE) found!";
            reply(L"LE NOT SUPPORTED\r\n");
            LOG_S(INFO) << "LE NOT SUPPORTED\r\n";
        } else {
            LOG_S(INFO) << "Found " << leAdapters << " devices that support LE";
        }
    }

    const std::uint32_t timeout = scanTimeout(line);
    if (timeout < kShortestScanMs) {
        // The bound itself is accepted, whatever the text says.
        LOG_S(INFO) << "LE scan is only allowed if timeout is larger than " << kShortestScanMs;
        return;
    }
    LOG_S(INFO) << "Starting LE scan with timeout " << timeout;
    std::wstring found;
    scanForTioDevices(found, timeout);
    reply(found.empty() ? L"N/A\r\n" : found);
}

void CommandSet::connect(const std::wstring& line) {
    stopLink();
    const std::wstring address = line.substr(std::wstring_view(L"connect").size());
    data_ = createDataPipe();
    reply(lecommStart(data_, address) == -1 ? L"FAIL\r\n" : L"OK\r\n");
}

void CommandSet::stats() {
    const auto context = currentTioContext();
    const TioStatistics& shown = copyShownCredits(*context);
    std::wostringstream text;
    text << L"RX " << context->rxBytes << L" bytes. TX " << context->txBytes << L" bytes. LC "
         << shown.localCreditsShown << L". RC " << shown.remoteCreditsShown << L"." << L" V"
         << windowsVersionText() << bluetoothStats()
         << (context->dataPipe ? L";TIOCONNECTED" : L";TIODISCONNECTED") << L"\r\n";
    reply(text.str());
}

std::wstring CommandSet::bluetoothStats() const {
    std::uint32_t radios = 0;
    if (checkBluetoothRadio(radios, false) == RadioCheckResult::BluetoothOff) return L";BLE N/A";

    std::wostringstream leList;
    bool leSupported = false;
    std::vector<RadioVersionInfo> adapters;
    if (enumerateRadioVersions(adapters)) {
        leList << L";LE=";
        for (const RadioVersionInfo& adapter : adapters) {
            leList << withoutControlCharacters(adapter.name) << L"+" << adapter.lmpVersion << L"|";
            leSupported = leSupported || adapter.lmpVersion >= kLowestLeLmpVersion;
        }
    }
    if (!leSupported) return L";BLE LE NOT SUPPORTED" + leList.str() + L";LE NOT SUPPORTED";
    return (radios != 0 ? L";BLE ON" : L";BLE OFF") + leList.str();
}

}  // namespace blescanner
