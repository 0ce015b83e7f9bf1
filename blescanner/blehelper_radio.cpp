#include <atomic>
#include <chrono>
#include <loguru.hpp>

#include "blehelper.h"
#include "btdrivercheck.h"
#include "platform/clock.h"
#include "platform/text.h"
#include "platform_error_text.h"
#include "waiting.h"

namespace blescanner {

using platform::Radio;
using platform::RadioKind;
using platform::RadioList;
using platform::RadioState;
using std::chrono::milliseconds;

namespace {

std::atomic<int> resetsUnderWay = 0;

struct ResetScope {
    ResetScope() { ++resetsUnderWay; }
    ~ResetScope() { --resetsUnderWay; }
};

using StateTest = bool (*)(RadioState state);

constexpr int kStatePolls = 5;
constexpr int kLooksInPoll = 10;
constexpr milliseconds kResetPollInterval{1500};
constexpr milliseconds kSwitchOnPollInterval{1000};
constexpr milliseconds kResetSettleTime{1000};

RadioList fetchRadios(StopSignal& stop) {
    const auto operation = requestRadioList();
    if (!operation) return std::nullopt;
    awaitOperation(*operation, stop);
    auto radios = operation->getResults();
    if (radios) LOG_S(INFO) << "Found " << radios->size() << " radio objects";
    return radios;
}

// Logs the radio's name, or the text for one that has none, and returns it.
std::string examine(const Radio& radio, const char* namelessText) {
    LOG_S(INFO) << "Checking radio object...";
    std::string name = platform::printable(radio.name());
    LOG_S(INFO) << (name.empty() ? namelessText : "Radio object is " + name);
    return name;
}

bool isBluetooth(const Radio& radio) {
    if (radio.kind() == RadioKind::bluetooth) return true;
    LOG_S(INFO) << "Found radio device which is not Bluetooth!";
    return false;
}

const char* stateWord(RadioState state) {
    switch (state) {
        case RadioState::on:
            return "ON";
        case RadioState::off:
            return "OFF";
        case RadioState::unknown:
        case RadioState::disabled:
            break;
    }
    return "Disabled/Unknown";
}

bool isOff(RadioState state) {
    return state == RadioState::off;
}
bool isOn(RadioState state) {
    return state == RadioState::on;
}
bool isNotOn(RadioState state) {
    return state != RadioState::on;
}

void pollStateWhile(StateTest goOn, const Radio& radio, milliseconds interval, StopSignal& stop) {
    for (int poll = 0; poll < kStatePolls; ++poll) {
        stop.sleep(interval);
        const RadioState state = radio.state();
        LOG_S(INFO) << "Radio object state is now " << static_cast<int>(state);
        if (!goOn(state)) return;
    }
}

// For a reset that has been stopped. Bounded like the polls of one that has not.
void waitWhile(StateTest goOn, const Radio& radio) {
    for (int look = 0; look < kStatePolls * kLooksInPoll && goOn(radio.state()); ++look)
        platform::sleepFor(kResetPollInterval / kLooksInPoll);
}

// Nobody waits for the switching operation itself, which need not end together with the change of state, if
// at all: what follows is paced by polling the state alone.
void requestState(Radio& radio, RadioState state) {
    LOG_S(INFO) << "Radio object going " << stateWord(state) << " ";
    radio.setStateAsync(state);
}

// Both polls go on while the wanted state is already reached. Deliberate: a radio that obeys is held off, and
// then watched, for the full time; one that has not obeyed by the first look is not waited for.
void resetRadio(Radio& radio, StopSignal& stop) {
    stop.check();
    requestState(radio, RadioState::off);
    try {
        pollStateWhile(isOff, radio, kResetPollInterval, stop);
    } catch (const Stopped&) {
        // The radio serves others, too: it must not stay off because nobody waits for this reset any more. A
        // radio that is still on has not obeyed yet, and would go off after a request for "on".
        waitWhile(isOn, radio);
        requestState(radio, RadioState::on);
        waitWhile(isNotOn, radio);
        throw;
    }
    requestState(radio, RadioState::on);
    pollStateWhile(isOn, radio, kResetPollInterval, stop);
    stop.sleep(kResetSettleTime);
}

void switchRadioOn(Radio& radio, StopSignal& stop) {
    if (!isOff(radio.state())) return;
    requestState(radio, RadioState::on);
    pollStateWhile(isNotOn, radio, kSwitchOnPollInterval, stop);
}

// Both texts are meant as they stand: log readers tell a switch from a check by the wording for a radio
// without a name, and the error speaks of a reset for the switch-on too.
void switchAllRadios(void (*switchRadio)(Radio&, StopSignal&), StopSignal& stop) {
    try {
        const RadioList radios = fetchRadios(stop);
        if (!radios) {
            LOG_S(ERROR) << "Resetting Bluetooth: Could not find radio objects!";
            return;
        }
        for (const auto& radio : *radios) {
            stop.check();
            examine(*radio, "Radio object has not name!");
            if (isBluetooth(*radio)) switchRadio(*radio, stop);
        }
    } catch (const Stopped&) {
        throw;
    } catch (const platform::PlatformError& error) {
        LOG_S(ERROR) << describe(error);
    } catch (...) {
        LOG_S(ERROR) << "Exception";
    }
}

}  // namespace

platform::AsyncOperationPtr<RadioList> requestRadioList() {
    return platform::getRadiosAsync();
}

RadioCheckResult checkBluetoothRadio(std::uint32_t& counter, bool runDriverCheck, StopSignal& stop) {
    LOG_S(INFO) << "Retrieving list of radio devices...";
    const RadioList radios = fetchRadios(stop);
    if (!radios) {
        // The only failure that counts as a yes: without it no command would be served on a machine whose
        // radios cannot be asked but work.
        LOG_S(ERROR) << "Could not get access to Windows Radio - assuming Bluetooth is ON";
        return RadioCheckResult::BluetoothOn;
    }
    auto result = RadioCheckResult::BluetoothOff;
    for (const auto& radio : *radios) {
        const std::string name = examine(*radio, "Radio object has no name");
        if (!isBluetooth(*radio)) continue;
        ++counter;
        const RadioState state = radio->state();
        LOG_S(INFO) << "Found Bluetooth: " << name << " which is " << stateWord(state);
        if (!isOn(state)) continue;
        result = RadioCheckResult::BluetoothOn;
        break;
    }
    if (runDriverCheck) checkBluetoothDrivers();
    return result;
}

void resetBluetooth(StopSignal& stop) {
    const ResetScope scope;
    LOG_S(INFO) << "Bluetooth reset initiated...";
    switchAllRadios(resetRadio, stop);
}

bool isBluetoothResetting() {
    return resetsUnderWay > 0;
}

void switchBluetoothOn() {
    LOG_S(INFO) << "Bluetooth ON initiated...";
    switchAllRadios(switchRadioOn, programEnd());
}

}  // namespace blescanner
