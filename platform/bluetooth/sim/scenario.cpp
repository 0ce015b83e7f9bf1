#include "scenario.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <fstream>
#include <regex>
#include <sstream>
#include <system_error>

#include "fields.h"
#include "platform/address.h"
#include "platform/runtime.h"
#include "platform/text.h"

namespace sim {

namespace {

using nlohmann::json;
using platform::Guid;
using platform::SystemError;

constexpr std::int64_t kMaxUint32 = 0xFFFFFFFF;
constexpr std::int64_t kMaxDelayMs = 3'600'000;
constexpr std::int64_t kMaxIntervalUs = 60'000'000;
constexpr std::int64_t kMaxPacketsPerInterval = 10'000;
constexpr std::int64_t kMaxCredits = 32'767;
constexpr std::int64_t kMaxAttributeLength = 512;  // Bluetooth Core, vol 3, F 3.2.9
constexpr double kMaxTimeScale = 1'000'000;

// All of the text as a number; nothing where it is none or has another length.
template <class Number>
std::optional<Number> parseNumber(std::string_view text, int base, std::size_t shortest,
                                  std::size_t longest) {
    if (text.size() < shortest || text.size() > longest) return std::nullopt;
    Number number = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number, base);
    if (error != std::errc() || stop != end) return std::nullopt;
    return number;
}

// The decimal numbers in a text of this form: the groups of the regular expression.
std::vector<unsigned> readNumbers(const json& value, const std::string& path, const char* form,
                                  const char* expected) {
    const std::string text = value.is_string() ? readText(value, path) : std::string();
    std::smatch groups;
    if (!std::regex_match(text, groups, std::regex(form))) failAt(path, expected, value);
    std::vector<unsigned> numbers;
    for (std::size_t i = 1; i < groups.size(); ++i)
        numbers.push_back(static_cast<unsigned>(std::stoul(groups[i])));
    return numbers;
}

Guid readUuid(const json& value, const std::string& path) {
    if (value.is_string()) {
        const std::string text = readText(value, path);
        if (const auto number = parseNumber<std::uint16_t>(text, 16, 4, 4))
            return platform::bluetoothUuid(*number);
        if (const auto guid = platform::parseGuid(text)) return *guid;
    }
    failAt(path, "a UUID, four hexadecimal digits or the long form", value);
}

std::uint64_t readAddress(const json& value, const std::string& path) {
    std::string text = value.is_string() ? readText(value, path) : std::string();
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
    const auto address = platform::parseAddress(text);
    // Only the usual form, with two digits in each field.
    if (!address || text != platform::formatAddress(*address, platform::LetterCase::upper))
        failAt(path, "a Bluetooth address like 00:1A:7D:DA:71:13", value);
    return *address;
}

// "2016-05-01T00:00:00Z"
platform::FileTime readDate(const json& value, const std::string& path) {
    constexpr auto kExpected = "a UTC time like 2016-05-01T00:00:00Z, 1601 or later";
    const auto fields = readNumbers(value, path, R"((\d{4})-(\d\d)-(\d\d)T(\d\d):(\d\d):(\d\d)Z)", kExpected);
    using namespace std::chrono;
    const year_month_day day{year(static_cast<int>(fields[0])), month(fields[1]),
                             std::chrono::day(fields[2])};
    const auto hour = fields[3], minute = fields[4], second = fields[5];
    if (!day.ok() || day.year() < year(1601) || hour > 23 || minute > 59 || second > 59)
        failAt(path, kExpected, value);
    const auto days = (sys_days(day) - sys_days(year(1601) / 1 / 1)).count();
    const auto seconds = static_cast<std::uint64_t>(days) * 86'400 + hour * 3'600 + minute * 60 + second;
    return {seconds * 10'000'000};
}

std::uint64_t readVersion(const json& value, const std::string& path) {
    constexpr auto kExpected = "a version like 10.0.19041.1, four numbers up to 65535";
    constexpr auto kForm = R"((\d{1,5})\.(\d{1,5})\.(\d{1,5})\.(\d{1,5}))";
    std::uint64_t version = 0;
    for (const auto part : readNumbers(value, path, kForm, kExpected)) {
        if (part > 0xFFFF) failAt(path, kExpected, value);
        version = version << 16 | part;
    }
    return version;
}

SystemError readSystemError(const json& value, const std::string& path) {
    return static_cast<SystemError>(readInteger(value, path, 0, kMaxUint32));
}

RadioScenario readRadio(const json& value, const std::string& path) {
    RadioScenario radio;
    Fields fields(value, path);
    fields.text("name", radio.name);
    fields.with("kind", [&](const json& item, const std::string& at) {
        radio.kind = static_cast<platform::RadioKind>(
            readName(item, at, {"Other", "WiFi", "MobileBroadband", "Bluetooth", "FM"}));
    });
    fields.with("state", [&](const json& item, const std::string& at) {
        radio.state =
            static_cast<platform::RadioState>(readName(item, at, {"Unknown", "On", "Off", "Disabled"}));
    });
    fields.integer("switch_delay_ms", radio.switchDelay, 0, kMaxDelayMs);
    fields.read("stuck", radio.stuck, readFlag);
    fields.rejectOthers();
    return radio;
}

AdapterScenario readAdapter(const json& value, const std::string& path) {
    AdapterScenario adapter;
    Fields fields(value, path);
    fields.text("name", adapter.name);
    fields.integer("lmp", adapter.lmp, 0, 255);
    fields.integer("hci", adapter.hci, 0, 255);
    fields.read("name_error", adapter.nameError, readSystemError);
    fields.read("version_error", adapter.versionError, readSystemError);
    fields.with("scan_command_errors", [&](const json& item, const std::string& at) {
        if (!item.is_array() || item.size() != 3) failAt(at, "a list of three error numbers", item);
        const auto errors = readList(item, at, readSystemError);
        std::copy(errors.begin(), errors.end(), adapter.scanCommandErrors.begin());
    });
    fields.rejectOthers();
    return adapter;
}

platform::DriverInfo readDriverInfo(const json& value, const std::string& path) {
    platform::DriverInfo info{L"Sim Driver", L"Sim", L"Sim", readDate("2020-01-01T00:00:00Z", ""),
                              1ULL << 48};
    Fields fields(value, path);
    fields.text("description", info.description);
    fields.text("manufacturer", info.manufacturer);
    fields.text("provider", info.provider);
    fields.read("date", info.date, readDate);
    fields.read("version", info.version, readVersion);
    fields.rejectOthers();
    return info;
}

DriverScenario readDriver(const json& value, const std::string& path) {
    DriverScenario driver;
    Fields fields(value, path);
    fields.read("build_error", driver.buildError, readSystemError);
    fields.list("compatible", driver.compatible, readDriverInfo);
    fields.read("end_error", driver.endError, readSystemError);
    fields.rejectOthers();
    return driver;
}

LinkScenario readLink(const json& value, const std::string& path) {
    LinkScenario link;
    Fields fields(value, path);
    fields.integer("interval_us", link.interval, 0, kMaxIntervalUs);
    fields.integer("packets_per_interval", link.packetsPerInterval, 0, kMaxPacketsPerInterval);
    fields.rejectOthers();
    if ((link.interval.count() == 0) != (link.packetsPerInterval == 0)) {
        failAt(path, "interval_us and packets_per_interval both zero or both set", value);
    }
    return link;
}

PairingScenario readPairing(const json& value, const std::string& path) {
    PairingScenario pairing;
    Fields fields(value, path);
    fields.read("paired", pairing.paired, readFlag);
    fields.read("can_pair", pairing.canPair, readFlag);
    fields.read("custom", pairing.custom, readFlag);
    fields.integer("kind", pairing.kind, 0, kMaxUint32);
    fields.integer("result", pairing.result, 0, INT32_MAX);
    fields.rejectOthers();
    return pairing;
}

FaultRule readFault(const json& value, const std::string& path) {
    FaultRule rule;
    Fields fields(value, path);
    bool hasPoint = false;
    bool hasAction = false;
    fields.with("on", [&](const json& item, const std::string& at) {
        const auto point = parseFaultPoint(readText(item, at));
        if (!point) failAt(at, "a fault point such as services or write:RX", item);
        const bool wantsWorld = path.starts_with("faults");
        if (point->ofWorld() != wantsWorld)
            failAt(at,
                   wantsWorld ? "a fault point of the world: radios, radio:state, adapters or drivers"
                              : "a fault point of a peripheral",
                   item);
        rule.point = *point;
        hasPoint = true;
    });
    fields.integer("after", rule.after, 0, kMaxUint32);
    fields.integer("times", rule.times, 0, kMaxUint32);
    fields.with("do", [&](const json& item, const std::string& at) {
        const auto fault = parseFault(readText(item, at));
        if (!fault) failAt(at, "a fault action such as unreachable or error:0x80000013", item);
        if (!isPossible(rule.point, fault->action)) {
            failAt(at, "one of the actions that can happen there, " + possibleActions(rule.point), item);
        }
        rule.fault = *fault;
        hasAction = true;
    });
    fields.rejectOthers();
    if (!hasPoint || !hasAction) failAt(path, "the keys on and do", value);
    return rule;
}

SerialBehaviour readSerial(const json& value, const std::string& path, std::uint64_t& sourceBytes) {
    constexpr std::string_view kSource = "source:";
    const std::string text = readText(value, path);
    if (text == "echo") return SerialBehaviour::echo;
    if (text == "sink") return SerialBehaviour::sink;
    if (text.starts_with(kSource)) {
        const auto bytes =
            parseNumber<std::uint64_t>(std::string_view(text).substr(kSource.size()), 10, 1, 20);
        if (bytes) {
            sourceBytes = *bytes;
            return SerialBehaviour::source;
        }
    }
    failAt(path, "echo, sink or source:BYTES", value);
}

void readServices(Fields& fields, PeripheralScenario& peripheral) {
    fields.list("services", peripheral.services, readUuid);
    peripheral.cachedServices = peripheral.uncachedServices = peripheral.services;
    fields.list("cached_services", peripheral.cachedServices, readUuid);
    fields.list("uncached_services", peripheral.uncachedServices, readUuid);
    fields.read("appears_after_listing", peripheral.appearsAfterListing, readFlag);
}

CharacteristicKind readCharacteristic(const json& value, const std::string& path) {
    return static_cast<CharacteristicKind>(
        readName(value, path, {"TX", "RX", "CRTX", "CRRX", "TXMTU", "RXMTU"}));
}

PeripheralScenario readPeripheral(const json& value, const std::string& path) {
    PeripheralScenario peripheral;
    Fields fields(value, path);
    fields.read("address", peripheral.address, readAddress);
    fields.text("name", peripheral.name);
    fields.with("advertises", [&](const json& item, const std::string& at) {
        peripheral.advertises.reset();
        if (!item.is_null()) peripheral.advertises = readList(item, at, readUuid);
    });
    fields.read("name_apart", peripheral.nameApart, readFlag);
    readServices(fields, peripheral);
    fields.with("characteristics", [&](const json& item, const std::string& at) {
        peripheral.characteristics.fill(false);
        for (const auto kind : readList(item, at, readCharacteristic)) {
            peripheral.characteristics[indexOf(kind)] = true;
        }
    });
    fields.integer("tx_mtu", peripheral.txMtu, 1, kMaxAttributeLength);
    fields.integer("initial_credits", peripheral.initialCredits, 0, kMaxCredits);
    fields.integer("regrant_at", peripheral.regrantAt, 0, kMaxCredits);
    fields.with("serial", [&](const json& item, const std::string& at) {
        peripheral.serial = readSerial(item, at, peripheral.sourceBytes);
    });
    fields.read("link", peripheral.link, readLink);
    fields.read("pairing", peripheral.pairing, readPairing);
    fields.list("faults", peripheral.faults, readFault);
    fields.rejectOthers();
    return peripheral;
}

std::vector<PeripheralScenario> readPeripherals(const json& value, const std::string& path) {
    auto peripherals = readList(value, path, readPeripheral);
    for (std::size_t i = 0; i < peripherals.size(); ++i) {
        for (std::size_t earlier = 0; earlier < i; ++earlier) {
            if (peripherals[earlier].address != peripherals[i].address) continue;
            failAt(path + "[" + std::to_string(i) + "].address", "an address that no other peripheral has",
                   platform::formatAddress(peripherals[i].address, platform::LetterCase::upper));
        }
    }
    return peripherals;
}

platform::OsVersion readOsVersion(const json& value, const std::string& path) {
    constexpr auto kExpected = "a list of three numbers: major, minor, build";
    if (!value.is_array() || value.size() != 3) failAt(path, kExpected, value);
    const auto number = [&](std::size_t at) {
        const std::string itemPath = path + "[" + std::to_string(at) + "]";
        return static_cast<std::uint32_t>(readInteger(value[at], itemPath, 0, kMaxUint32));
    };
    return {number(0), number(1), number(2)};
}

double readTimeScale(const json& value, const std::string& path) {
    const double scale = value.is_number() ? value.get<double>() : 0;
    if (!(scale >= 1 && scale <= kMaxTimeScale)) failAt(path, "a number from 1 to 1000000", value);
    return scale;
}

Scenario readRoot(const json& root, const std::filesystem::path& folder) {
    Scenario scenario;
    Fields fields(root, "");
    fields.read("os_version", scenario.osVersion, readOsVersion);
    fields.read("time_scale", scenario.timeScale, readTimeScale);
    fields.with("drivers_db", [&](const json& item, const std::string& at) {
        const std::string text = readText(item, at);
        if (text.empty()) failAt(at, "the path of a file", item);
        scenario.driversDb = folder / std::filesystem::path(std::u8string(text.begin(), text.end()));
    });
    fields.with("radios", [&](const json& item, const std::string& at) {
        scenario.radios.reset();
        if (!item.is_null()) scenario.radios = readList(item, at, readRadio);
    });
    fields.list("adapters", scenario.adapters, readAdapter);
    fields.list("drivers", scenario.drivers, readDriver);
    fields.read("peripherals", scenario.peripherals, readPeripherals);
    fields.list("faults", scenario.faults, readFault);
    fields.rejectOthers();
    return scenario;
}

}  // namespace

Scenario parseScenario(std::string_view text, const std::filesystem::path& folder) {
    try {
        constexpr bool kExceptions = true;
        constexpr bool kIgnoreComments = true;
        return readRoot(json::parse(text, nullptr, kExceptions, kIgnoreComments), folder);
    } catch (const json::exception& error) {
        throw platform::BluetoothConfigError(std::string("not valid JSON: ") + error.what());
    }
}

Scenario readScenario(const std::filesystem::path& file) {
    const auto utf8 = file.u8string();
    const std::string name(utf8.begin(), utf8.end());
    std::ifstream stream(file, std::ios::binary);
    std::ostringstream text;
    std::error_code ignored;
    if (!stream || std::filesystem::is_directory(file, ignored))
        throw platform::BluetoothConfigError(name + ": cannot be read");
    text << stream.rdbuf();
    try {
        return parseScenario(text.str(), file.parent_path());
    } catch (const platform::BluetoothConfigError& error) {
        throw platform::BluetoothConfigError(name + ": " + error.what());
    }
}

}  // namespace sim
