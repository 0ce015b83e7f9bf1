#include <chrono>
#include <functional>
#include <loguru.hpp>

#include "blehelper.h"
#include "bleif_common.h"
#include "btdrivercheck.h"
#include "platform/clock.h"
#include "platform/text.h"
#include "platform_error_text.h"

namespace blescanner {

using platform::Radio;
using platform::RadioKind;
using platform::RadioList;
using platform::RadioState;
using std::chrono::milliseconds;

namespace {

enum class Walk { goOn, stop };
using RadioVisitor = std::function<Walk(Radio& radio, const std::string& name)>;
using StateTest = bool (*)(RadioState state);

constexpr int kStatePolls = 5;
constexpr milliseconds kResetPollInterval{1500};
constexpr milliseconds kSwitchOnPollInterval{1000};
constexpr milliseconds kResetSettleTime{1000};

RadioList fetchRadios() {
    const auto operation = requestRadioList();
    if (!operation) return std::nullopt;
    awaitOperation(*operation);
    return operation->getResults();
}

// Shows every radio and has the Bluetooth ones visited. False: no list of radios is to be had.
bool walkBluetoothRadios(const char* namelessText, const RadioVisitor& visit) {
    const RadioList radios = fetchRadios();
    if (!radios) return false;
    LOG_S(INFO) << "Found " << radios->size() << " radio objects";
    for (const auto& radio : *radios) {
        LOG_S(INFO) << "Checking radio object...";
        const std::string name = platform::printable(radio->name());
        LOG_S(INFO) << (name.empty() ? namelessText : "Radio object is " + name);
        if (radio->kind() != RadioKind::bluetooth) {
            LOG_S(INFO) << "Found radio device which is not Bluetooth!";
        } else if (visit(*radio, name) == Walk::stop) {
            break;
        }
    }
    return true;
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

void pollStateWhile(StateTest goOn, const Radio& radio, milliseconds interval) {
    for (int poll = 0; poll < kStatePolls; ++poll) {
        platform::sleepFor(interval);
        const RadioState state = radio.state();
        LOG_S(INFO) << "Radio object state is now " << static_cast<int>(state);
        if (!goOn(state)) return;
    }
}

// Nobody waits for the switching operation itself, which need not end together with the change of state, if
// at all: what follows is paced by polling the state alone.
void requestState(Radio& radio, RadioState state) {
    LOG_S(INFO) << "Radio object going " << stateWord(state) << " ";
    radio.setStateAsync(state);
}

// Both polls go on while the wanted state is already reached. Deliberate: a radio that obeys is held off, and
// then watched, for the full time; one that has not obeyed by the first look is not waited for.
void resetRadio(Radio& radio) {
    requestState(radio, RadioState::off);
    pollStateWhile(isOff, radio, kResetPollInterval);
    requestState(radio, RadioState::on);
    pollStateWhile(isOn, radio, kResetPollInterval);
    platform::sleepFor(kResetSettleTime);
}

void switchRadioOn(Radio& radio) {
    if (!isOff(radio.state())) return;
    requestState(radio, RadioState::on);
    pollStateWhile(isNotOn, radio, kSwitchOnPollInterval);
}

// Both texts are meant as they stand: log readers tell a switch from a check by the wording for a radio
// without a name, and the error speaks of a reset for the switch-on too.
void switchAllRadios(void (*switchRadio)(Radio&)) {
    try {
        const bool listed =
            walkBluetoothRadios("Radio object has not name!", [&](Radio& radio, const std::string&) {
                switchRadio(radio);
                return Walk::goOn;
            });
        if (!listed) LOG_S(ERROR) << "Resetting Bluetooth: Could not find radio objects!";
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

RadioCheckResult checkBluetoothRadio(std::uint32_t& counter, bool runDriverCheck) {
    LOG_S(INFO) << "Retrieving list of radio devices...";
    auto result = RadioCheckResult::BluetoothOff;
    const bool listed =
        walkBluetoothRadios("Radio object has no name", [&](Radio& radio, const std::string& name) {
            ++counter;
            const RadioState state = radio.state();
            LOG_S(INFO) << "Found Bluetooth: " << name << " which is " << stateWord(state);
            if (!isOn(state)) return Walk::goOn;
            result = RadioCheckResult::BluetoothOn;
            return Walk::stop;
        });
    if (!listed) {
        // The only failure that counts as a yes: without it no command would be served on a machine whose
        // radios cannot be asked but work.
        LOG_S(ERROR) << "Could not get access to Windows Radio - assuming Bluetooth is ON";
        return RadioCheckResult::BluetoothOn;
    }
    if (runDriverCheck) checkBluetoothDrivers();
    return result;
}

void resetBluetooth() {
    LOG_S(INFO) << "Bluetooth reset initiated...";
    switchAllRadios(resetRadio);
}

void switchBluetoothOn() {
    LOG_S(INFO) << "Bluetooth ON initiated...";
    switchAllRadios(switchRadioOn);
}

}  // namespace blescanner
