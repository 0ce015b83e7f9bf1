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
constexpr auto kDataFlush = 250ms;
constexpr std::uint32_t kShortestScanMs = 1000;

// The milliseconds of "lescan MS"; 0 where there is no usable number.
std::uint32_t scanTimeout(const std::wstring& line) {
    std::wistringstream words(line);
    std::wstring command;
    words >> command >> std::ws;
    // A stream would read a negative number as a huge unsigned one.
    std::uint32_t timeout = 0;
    if (words.peek() == L'-' || !(words >> timeout)) return 0;
    return timeout;
}

}  // namespace

CommandResult CommandSet::dispatch(std::span<const std::uint8_t> bytes, LineAccumulator& line) {
    for (const std::uint8_t byte : bytes) {
        if (!line.add(byte)) continue;
        line.lower();
        const std::string shown = platform::printable(line.shownText());
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
        LOG_S(INFO) << "Received a terminate APP command";
        stopSession();
        platform::sleepFor(kStopGrace);
        return CommandResult::programEnds;
    }
    if (line.starts_with(L"lescan")) {
        leScan(line);
    } else if (line.starts_with(L"connect")) {
        connect(line);
    } else if (line.starts_with(L"disconnect")) {
        stopSession();
        reply(L"OK\r\n");
    } else if (line.starts_with(L"stats")) {
        stats();
    } else if (line.starts_with(L"resetbt")) {
        resetBluetooth(stop_);
        reply(L"OK\r\n");
    } else {
        LOG_S(ERROR) << "Unknown command: " << platform::printable(line);
    }
    return CommandResult::goOn;
}

void CommandSet::closeDataPipe() {
    if (!data_) return;
    if (!data_->flush(kDataFlush)) LOG_S(WARNING) << "Data pipe: closed before the client had read all of it";
    data_->close();
    data_.reset();
}

void CommandSet::closeSession() {
    // Before the pipe is closed: a thread that this wakes finds the session stopped.
    stopLink(*currentTioContext());
    closeDataPipe();
}

void CommandSet::stopSession() {
    closeSession();
    platform::sleepFor(kStopGrace);
}

void CommandSet::reply(std::wstring text) {
    shell_.writeText(text);
}

void CommandSet::replyAndLog(const wchar_t* text, const char* logged) {
    reply(text);
    LOG_S(INFO) << logged;
}

void CommandSet::tellBluetoothUnusable(std::uint32_t radios) {
    if (radios == 0) return replyAndLog(L"BLE NOT FOUND\r\n", "BLE NOT FOUND\r\n");
    // The log lacks the reply's "!" on purpose.
    replyAndLog(L"BLE DISABLED!\r\n", "BLE DISABLED\r\n");
}

void CommandSet::tellLowEnergyMissing() {
    replyAndLog(L"LE NOT SUPPORTED\r\n", "LE NOT SUPPORTED\r\n");
}

bool CommandSet::replyIfBluetoothUnusable() {
    std::uint32_t radios = 0;
    if (checkBluetoothRadio(radios, false, stop_) == RadioCheckResult::BluetoothOn) return false;
    tellBluetoothUnusable(radios);
    return true;
}

void CommandSet::leScan(const std::wstring& line) {
    if (shell_.clientLeft()) return;  // nobody waits for the result
    if (replyIfBluetoothUnusable()) return;

    std::uint32_t leAdapters = 0;
    if (getBLEProtocolSupport(&leAdapters)) {
        if (leAdapters == 0) {
            // The scan still follows: an adapter may see advertisements though its version could not be read.
            LOG_S(WARNING) << kNoLowEnergy;
            tellLowEnergyMissing();
        } else {
            LOG_S(INFO) << "Found " << leAdapters << " devices that support LE";
        }
    }

    const std::uint32_t timeout = scanTimeout(line);
    if (timeout < kShortestScanMs) {
        // Deliberate: the text says "larger than", but the bound itself is accepted.
        LOG_S(INFO) << "LE scan is only allowed if timeout is larger than " << kShortestScanMs;
        return;
    }
    LOG_S(INFO) << "Starting LE scan with timeout " << timeout;
    std::wstring found;
    scanForTioDevices(found, timeout, [this] { return !shell_.clientLeft(); });
    reply(found.empty() ? L"N/A\r\n" : found);
}

void CommandSet::connect(const std::wstring& line) {
    stopSession();
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

std::wstring CommandSet::bluetoothStats() {
    std::uint32_t radios = 0;
    if (checkBluetoothRadio(radios, false, stop_) == RadioCheckResult::BluetoothOff) return L";BLE N/A";

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
