#include <array>
#include <loguru.hpp>

#include "blehelper.h"
#include "platform/text.h"

namespace blescanner {

using platform::SystemError;

namespace {

// Where this program finds the two version bytes in the driver's reply. Do not derive them from a header.
constexpr std::size_t kHciVersionOffset = 278;
constexpr std::size_t kLmpVersionOffset = 291;

// Deliberate: the loop ends behind this index, so it looks at 34 adapters although the message says 32.
constexpr std::size_t kMaxInterfaceIndex = 32;

void queryAdapter(const platform::Adapter& adapter, std::size_t index, std::vector<RadioVersionInfo>& list) {
    LOG_S(INFO) << "Query info about interface #" << index << "...";
    RadioVersionInfo info;
    if (const SystemError error = adapter.name(info.name); error != SystemError::none) {
        LOG_S(WARNING) << "getBLEProtocolSupport: Could not get Bluetooth name, using instance! "
                       << number(error);
        return;
    }
    LOG_S(INFO) << "Query info about LMP and HCI on interface #" << index << "...";
    platform::LocalRadioInfo reply{};
    if (const SystemError error = adapter.localRadioInfo(reply); error != SystemError::none) {
        LOG_S(WARNING) << "getBLEProtocolSupport: No LMP version read! " << number(error);
        return;
    }
    info.lmpVersion = reply[kLmpVersionOffset];
    info.hciVersion = reply[kHciVersionOffset];
    list.push_back(std::move(info));
}

void logProtocolSupport(const RadioVersionInfo& info) {
    static constexpr std::array kBluetoothVersions = {
        "1.0b", "1.1", "1.2", "2.0 + EDR", "2.1 + EDR", "3.0 + HS", "4.0", "4.1", "4.2", "5.0+",
    };
    if (info.lmpVersion < 0) {
        LOG_S(WARNING) << "Unknown LMP version found" << info.lmpVersion;
    } else if (const auto version = static_cast<std::size_t>(info.lmpVersion);
               version < kBluetoothVersions.size()) {
        LOG_S(INFO) << platform::printable(info.name) << " supports Bluetooth "
                    << kBluetoothVersions[version];
    } else {
        LOG_S(INFO) << "Looks like newer LMP version is found" << info.lmpVersion;
    }
}

}  // namespace

bool enumerateRadioVersions(std::vector<RadioVersionInfo>& list) {
    list.clear();
    const auto adapters = platform::findAdapters().adapters;
    for (std::size_t index = 0; index < adapters.size(); ++index) {
        queryAdapter(*adapters[index], index, list);
        if (index > kMaxInterfaceIndex) {
            LOG_S(WARNING) << "More than " << kMaxInterfaceIndex
                           << " instances found! Terminating the enumeration";
            break;
        }
    }
    return !adapters.empty();
}

bool getBLEProtocolSupport(std::uint32_t* leCount) {
    std::vector<RadioVersionInfo> list;
    if (!enumerateRadioVersions(list)) return false;
    for (const auto& info : list) {
        logProtocolSupport(info);
        if (leCount && info.lmpVersion >= kLowestLeLmpVersion) ++*leCount;
    }
    return true;
}

}  // namespace blescanner
