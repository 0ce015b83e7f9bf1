#include "bleif_impl_legacy.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <loguru.hpp>

#include "blehelper.h"
#include "platform/address.h"
#include "platform/text.h"

namespace blescanner {

using namespace std::chrono_literals;

namespace {

// Indexed by the outcome's value. The slips in the wording are deliberate: support scripts look for these
// texts.
constexpr std::array<const wchar_t*, 20> kPairingResults = {
    L"The device object is now paired.",
    L"The device object is not in a state where it can be paired.",
    L"The device object is not currently paired.",
    L"The device object has already been paired.",
    L"The device object rejected the connection.",
    L"The device object indicated it cannot accept any more incoming connections.",
    L"The device object indicated there was a hardware failure.",
    L"The authentication process timed out before it could complete.",
    L"The authentication protocol is not supported, so the device is not paired.",
    L"Authentication failed, so the device is not paired.Either the device object or the application "
    L"rejected the "
    L"authentication.",
    L"There are no network profiles for this device object to use.",
    L"The minimum level of protection is not supported by the device object or the application.",
    L"Your application does not have the appropriate permissions level to pair the device object.:",
    L"The ceremony data was incorrect.",
    L"The pairing action was canceled before completion.",
    L"The device object is already attempting to pair or unpair.",
    L"Either the event handler wasn't registered or a required DevicePairingKinds was not supported.",
    L"The application handler rejected the pairing.",
    L"The remove device already has an association.",
    L"An unknown failure occurred.",
};

// True when this call has paired the device.
bool pairDevice(platform::DeviceInformation& device, StopSignal& stop) {
    stop.check();
    const std::string id = platform::printable(device.id());
    const auto pairing = device.pairing();
    if (pairing->isPaired()) {
        LOG_S(INFO) << "Device " << id << " is already accessible!";
        LOG_S(INFO) << "Device is already accessible!";
        return false;
    }
    if (!pairing->canPair()) {
        LOG_S(ERROR) << "Device " << id << " seems not connectable!";
        LOG_S(ERROR) << "Device seems not connectable!";
        return false;
    }
    const auto custom = pairing->custom();
    if (!custom) {
        LOG_S(ERROR) << "No customized connection possible! Check and update Windows 10!";
        return false;
    }
    LOG_S(INFO) << "Preparing for customized connectiong...";
    // The handler answers for as long as this ceremony lasts.
    const auto handler = custom->onPairingRequested(onPairingRequested);
    stop.check();
    const auto ceremony = custom->pairAsync(platform::DevicePairingKinds::confirmOnly,
                                            platform::DevicePairingProtectionLevel::none);
    if (!ceremony) {
        LOG_S(ERROR) << "Could not start connecting to " << id;
        LOG_S(ERROR) << "Could not start connecting to device";
        return false;
    }
    awaitOperation(*ceremony, stop);
    const auto outcome = ceremony->getResults();
    if (!outcome) {
        LOG_S(ERROR) << "Connection returned NULL status - cannot report it!";
        return false;
    }
    LOG_S(INFO) << "Connection status is: " << platform::toUtf8(pairingResultText(*outcome));
    if (*outcome != platform::DevicePairingResultStatus::paired) return false;
    LOG_S(INFO) << "Device " << id << " CONNECTED!";
    LOG_S(INFO) << "Device CONNECTED!";
    return true;
}

std::string shortUuidText(const platform::Guid& uuid) {
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "%x-%x-%x-%x", static_cast<unsigned>(uuid.data1),
                  static_cast<unsigned>(uuid.data2), static_cast<unsigned>(uuid.data3),
                  static_cast<unsigned>(uuid.data4[0]));
    return text.data();
}

}  // namespace

const wchar_t* pairingResultText(platform::DevicePairingResultStatus status) {
    const auto value = static_cast<std::uint32_t>(status);
    return value < kPairingResults.size() ? kPairingResults[value] : L"";
}

BLEIFLegacy::BLEIFLegacy(std::shared_ptr<TioContext> context) : IBLEIF(std::move(context)) {
    LOG_S(INFO) << "Using BLE legacy interface...";
}

BLEIFLegacy::~BLEIFLegacy() {
    LOG_S(INFO) << "Done using BLE legacy interface...";
}

bool BLEIFLegacy::prepareConnection(std::uint64_t address, std::uint32_t /*timeoutMs*/) {
    LOG_S(INFO) << "Preparing BLE connection on older Windows...";
    return connectLegacy(address);
}

bool BLEIFLegacy::connectLegacy(std::uint64_t address) {
    const std::wstring selector = platform::deviceSelectorFromBluetoothAddress(address);
    LOG_S(INFO) << "Device selector: " << platform::printable(selector);
    LOG_S(INFO) << "Connecting to device...";
    const auto enumeration = platform::findAllDevicesAsync(selector);
    if (!enumeration) {
        LOG_S(ERROR) << "Could not enumerate device with selector!";
        return false;
    }
    await(*enumeration);
    const auto devices = enumeration->getResults();
    if (!devices) {
        LOG_S(ERROR) << "Could not get device collection for BLE device!";
        return false;
    }
    LOG_S(INFO) << "Found collection of " << devices->size() << " devices";
    bool paired = false;
    for (const auto& device : *devices)
        paired = pairDevice(*device, context().stop) || paired;
    return paired;
}

std::shared_ptr<platform::GattDeviceService> BLEIFLegacy::getService(const platform::Guid& serviceUuid,
                                                                     std::uint64_t address) {
    const auto lookUp = startDeviceLookUp(address);
    if (!lookUp) return nullptr;
    await(*lookUp);
    context().device = lookUp->getResults();
    if (!context().device) {
        LOG_S(ERROR) << "LE Device is NULL [l]! " << shortUuidText(serviceUuid);
        LOG_S(ERROR) << "LE Error code is " << lookUp->errorCode() << ". Status is "
                     << static_cast<int>(lookUp->status());
        LOG_S(WARNING) << "No device " << platform::formatAddress(address)
                       << " found: is it switched on and in range?";
        return nullptr;
    }
    LOG_S(INFO) << "Got LE Device ";
    LOG_S(INFO) << "Retrieving service for " << platform::toString(serviceUuid);
    context().stop.sleep(100ms);

    const auto services = listServices();
    LOG_S(INFO) << "Found " << services.size() << " GATT services.";
    for (const auto& service : services) {
        const platform::Guid uuid = service->uuid();
        LOG_S(INFO) << "Found GATT service UUID: " << platform::toString(uuid);
        if (uuid != serviceUuid) continue;
        LOG_S(INFO) << "Found match!";
        return service;
    }
    LOG_S(ERROR) << "Could not get service " << platform::toString(serviceUuid);
    requestStackFlush(services.empty());
    releaseDevice();
    return nullptr;
}

// The services that the platform knows of. When it knows of none, the device is asked once.
std::vector<std::shared_ptr<platform::GattDeviceService>> BLEIFLegacy::listServices() {
    LOG_S(INFO) << "Retrieving available GATT services (ALL)...";
    auto known = context().device->gattServices();
    if (!known.empty()) return known;
    context().stop.check();
    LOG_S(INFO) << "Refreshig available GATT services (ALL)...";
    const auto listing = context().device->getGattServicesAsync(platform::BluetoothCacheMode::uncached);
    if (!listing) {
        LOG_S(ERROR) << "No operation came back for the listing";
        return {};
    }
    await(*listing);
    const auto result = listing->getResults();
    if (result.services) return *result.services;
    LOG_S(WARNING) << "The listing ended with status " << statusText(result.status);
    return {};
}

std::shared_ptr<platform::GattCharacteristic> BLEIFLegacy::getCharacteristic(
    const std::shared_ptr<platform::GattDeviceService>& service, const platform::Guid& uuid) {
    if (!service) return nullptr;
    context().stop.check();
    const auto found = service->getCharacteristics(uuid);
    LOG_S(INFO) << "Characteristics"
                << " (" << found.size() << ")";
    if (found.empty()) {
        LOG_S(INFO) << "Could not retrieve characteristic";
        return nullptr;
    }
    LOG_S(INFO) << "Characteristic " << platform::toString(found.front()->uuid());
    return found.front();
}

}  // namespace blescanner
