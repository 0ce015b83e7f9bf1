#include "btdrivercheck.h"

#include <algorithm>
#include <exception>
#include <fstream>
#include <loguru.hpp>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/driver.h"
#include "platform/text.h"

namespace blescanner {

using platform::CalendarTime;
using platform::DriverInfo;
using platform::printable;
using platform::SystemError;

namespace {

constexpr std::size_t kMaxDevices = 33;
constexpr std::uint32_t kMaxDriversPerDevice = 32;
// The one failure that is not worth a line.
constexpr auto kSilentBuildError = static_cast<SystemError>(256);

// The text up to the next comma, which is taken off together with it.
std::string_view nextField(std::string_view& rest) {
    const std::size_t comma = rest.find(',');
    const std::string_view field = rest.substr(0, comma);
    rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
    return field;
}

std::wstring versionText(std::uint64_t version) {
    std::wstring text;
    for (int shift = 48; shift >= 0; shift -= 16) {
        if (!text.empty()) text += L'.';
        text += std::to_wstring((version >> shift) & 0xFFFF);
    }
    return text;
}

void logDriver(const DriverInfo& driver, const CalendarTime& date) {
    LOG_S(INFO) << "---------------";
    LOG_S(INFO) << "Driver description " << printable(driver.description);
    LOG_S(INFO) << "Driver manufacturer " << printable(driver.manufacturer);
    LOG_S(INFO) << "Driver provider " << printable(driver.provider);
    LOG_S(INFO) << "Driver date is " << printable(platform::formatLongDateAndTime(date));
    LOG_S(INFO) << "Driver version is " << printable(versionText(driver.version));
}

bool isSuperseded(const DriverInfo& driver, const std::vector<DriverInfo>& seen) {
    return std::any_of(seen.begin(), seen.end(), [&](const DriverInfo& other) {
        return other.description == driver.description && other.manufacturer == driver.manufacturer &&
               other.provider == driver.provider && other.date <= driver.date;
    });
}

// The first years of Windows 10. Anything older is left alone on purpose.
bool isOfDoubtfulAge(const CalendarTime& date) {
    return date.year == 2015 || date.year == 2016 || (date.year == 2017 && date.month < 3);
}

bool isDoubtfulIntelDriver(const DriverInfo& driver, const CalendarTime& date) {
    return date.year == 2017 && driver.manufacturer.find(L"Intel") != std::wstring::npos;
}

// `driver.date` is local time already and is shifted once more, so the warning shows it shifted twice.
// Deliberate: warnings stay comparable with those in older logs.
void warnOfAge(const DriverInfo& driver) {
    const auto date = platform::toCalendarTime(platform::toLocalFileTime(driver.date));
    LOG_S(WARNING) << "[WARNING] It is recommended to check for new Bluetooth \""
                   << printable(driver.manufacturer) << ":" << printable(driver.provider) << ":"
                   << printable(platform::formatLongDateAndTime(date)) << "\" driver version and update!";
}

void warnIfKnown(const DriverInfo& driver, const std::wstring& version, const DriversDb& driversDb) {
    const auto entry = driversDb.find(driver.manufacturer + L"#" + version);
    if (entry == driversDb.end()) return;
    LOG_S(WARNING) << "[WARNING] Bluetooth driver \"" << printable(driver.manufacturer) << ":"
                   << printable(driver.provider) << "\" may require an update! " << printable(entry->second);
}

// `seen`: the drivers of the same device so far, their dates in local time.
void checkDriver(DriverInfo driver, std::vector<DriverInfo>& seen, const DriversDbSource& driversDb) {
    driver.date = platform::toLocalFileTime(driver.date);
    const CalendarTime date = platform::toCalendarTime(driver.date);
    logDriver(driver, date);

    // An empty version keeps a duplicate from every warning.
    const std::wstring version = isSuperseded(driver, seen) ? L"" : versionText(driver.version);
    seen.push_back(driver);

    if (isOfDoubtfulAge(date) || isDoubtfulIntelDriver(driver, date)) {
        if (!version.empty()) warnOfAge(driver);
    } else {
        warnIfKnown(driver, version, driversDb());
    }
}

void checkDriversOf(const platform::DriverDevice& device, const DriversDbSource& driversDb) {
    std::vector<DriverInfo> seen;
    for (std::uint32_t index = 0; index < kMaxDriversPerDevice; ++index) {
        DriverInfo driver;
        const SystemError error = device.compatibleDriver(index, driver);
        if (error == SystemError::noMoreItems) return;
        if (error != SystemError::none) {
            LOG_S(WARNING) << "Driver check: SetupDiEnumDriverInfo err - " << number(error);
            return;
        }
        checkDriver(std::move(driver), seen, driversDb);
    }
}

// Takes the byte order mark off, and translates UTF-16, which has to begin with one.
std::string toUtf8Text(const std::string& bytes) {
    constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
    const bool bigEndian = bytes.starts_with("\xFE\xFF");
    if (!bigEndian && !bytes.starts_with("\xFF\xFE"))
        return bytes.starts_with(kUtf8Mark) ? bytes.substr(kUtf8Mark.size()) : bytes;

    std::wstring text;
    for (std::size_t at = 2; at + 1 < bytes.size(); at += 2) {
        const auto high = static_cast<unsigned char>(bytes[bigEndian ? at : at + 1]);
        const auto low = static_cast<unsigned char>(bytes[bigEndian ? at + 1 : at]);
        text += static_cast<wchar_t>(high << 8 | low);
    }
    return platform::toUtf8(text);
}

}  // namespace

DriversDb parseDriversDb(const std::string& bytes, const std::string& fileName) {
    DriversDb driversDb;
    std::size_t unreadable = 0;
    std::istringstream lines(toUtf8Text(bytes));
    for (std::string line; std::getline(lines, line);) {
        if (platform::toUtf8(platform::widen(line)) != line || line.find('\0') != std::string::npos) {
            ++unreadable;
            continue;
        }
        std::string_view rest = line;
        if (rest.ends_with('\r')) rest.remove_suffix(1);
        const std::string_view manufacturer = nextField(rest);
        const std::string_view version = nextField(rest);
        const std::string_view hint = nextField(rest);
        if (manufacturer.empty() || version.empty()) continue;
        driversDb.insert_or_assign(platform::widen(manufacturer) + L"#" + platform::widen(version),
                                   platform::widen(hint));
    }
    if (unreadable > 0) {
        LOG_S(WARNING) << "Driver check: " << printable(fileName)
                       << " has lines that are not UTF-8 and are not used: " << unreadable
                       << ". Save the file as UTF-8.";
    }
    return driversDb;
}

DriversDb readDriversDb() {
    std::filesystem::path path;
    try {
        path = platform::driversDbPath();
    } catch (const std::exception& error) {
        LOG_S(WARNING) << "Driver check: no folder to look for drivers.db in: " << printable(error.what());
        return {};
    }
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    const auto name = path.u8string();
    return parseDriversDb(bytes.str(), {name.begin(), name.end()});
}

void checkBluetoothDrivers() {
    checkBluetoothDrivers([]() -> const DriversDb& {
        static const DriversDb driversDb = readDriversDb();
        return driversDb;
    });
}

void checkBluetoothDrivers(const DriversDbSource& driversDb) {
    const platform::DriverDeviceList list = platform::bluetoothDriverDevices();
    if (list.error != SystemError::none) {
        LOG_S(ERROR) << "Driver check: SetupDiGetClassDevs failed: " << number(list.error);
        return;
    }
    const std::size_t count = std::min(list.devices.size(), kMaxDevices);
    for (std::size_t index = 0; index < count; ++index) {
        platform::DriverDevice& device = *list.devices[index];
        if (const SystemError error = device.buildCompatibleDriverList(); error != SystemError::none) {
            if (error != kSilentBuildError) {
                LOG_S(ERROR) << "Driver check: SetupDiBuildDriverInfoList err - " << number(error);
            }
            return;
        }
        checkDriversOf(device, driversDb);
    }
}

}  // namespace blescanner
