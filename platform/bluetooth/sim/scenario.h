// What a simulated world is made of. docs/scenario.md describes every key of the file form.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fault.h"
#include "platform/driver.h"
#include "platform/guid.h"
#include "platform/radio.h"
#include "platform/version.h"
#include "profile.h"

namespace sim {

struct RadioScenario {
    std::wstring name = L"Sim Radio";
    platform::RadioKind kind = platform::RadioKind::bluetooth;
    platform::RadioState state = platform::RadioState::on;
    std::chrono::milliseconds switchDelay{0};
    bool stuck = false;

    bool operator==(const RadioScenario&) const = default;
};

struct AdapterScenario {
    std::wstring name = L"Sim Adapter";
    std::uint8_t lmp = 9;
    std::uint8_t hci = 9;
    platform::SystemError nameError = platform::SystemError::none;
    platform::SystemError versionError = platform::SystemError::none;
    std::array<platform::SystemError, 3> scanCommandErrors{};  // plain, 1809+, 1903+

    bool operator==(const AdapterScenario&) const = default;
};

struct DriverScenario {
    platform::SystemError buildError = platform::SystemError::none;
    std::vector<platform::DriverInfo> compatible;
    platform::SystemError endError = platform::SystemError::noMoreItems;

    bool operator==(const DriverScenario&) const = default;
};

enum class SerialBehaviour { echo, sink, source };

struct LinkScenario {
    std::chrono::microseconds interval{0};  // both zero: no pacing
    std::uint32_t packetsPerInterval = 0;

    bool operator==(const LinkScenario&) const = default;
};

struct PairingScenario {
    bool paired = false;
    bool canPair = true;
    bool custom = true;
    std::uint32_t kind = 1;
    std::int32_t result = 0;

    bool operator==(const PairingScenario&) const = default;
};

struct PeripheralScenario {
    std::uint64_t address = 0x001A7DDA7113;
    std::wstring name = L"TIO-SIM";
    std::optional<std::vector<platform::Guid>> advertises = std::vector{kTioService};
    bool nameApart = false;
    std::vector<platform::Guid> services = {kTioService};
    std::vector<platform::Guid> cachedServices = {kTioService};
    std::vector<platform::Guid> uncachedServices = {kTioService};
    bool appearsAfterListing = false;
    std::array<bool, kCharacteristicKinds> characteristics = {true, true, true, true, true, true};
    std::uint16_t txMtu = 244;
    std::uint32_t initialCredits = 32;
    std::uint32_t regrantAt = 8;
    SerialBehaviour serial = SerialBehaviour::echo;
    std::uint64_t sourceBytes = 0;  // of source; 0: endless
    LinkScenario link;
    PairingScenario pairing;
    std::vector<FaultRule> faults;

    bool operator==(const PeripheralScenario&) const = default;
};

struct Scenario {
    platform::OsVersion osVersion = {10, 0, 19041};
    std::optional<double> timeScale;  // nothing: the scale stays as it is
    std::filesystem::path driversDb;  // empty: beside the executable
    std::optional<std::vector<RadioScenario>> radios = std::vector{RadioScenario{}};
    std::vector<AdapterScenario> adapters = {AdapterScenario{}};
    std::vector<DriverScenario> drivers;
    std::vector<PeripheralScenario> peripherals = {PeripheralScenario{}};
    std::vector<FaultRule> faults;  // of the calls that no peripheral answers

    bool operator==(const Scenario&) const = default;
};

// Relative paths in the text are relative to the folder. Throws platform::BluetoothConfigError; its text
// names the key, what was expected and what stood there.
Scenario parseScenario(std::string_view json, const std::filesystem::path& folder = {});

// Of a file. Throws likewise, with the file's name in front.
Scenario readScenario(const std::filesystem::path& file);

}  // namespace sim
