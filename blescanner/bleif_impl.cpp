#include "bleif_impl.h"

#include <chrono>
#include <loguru.hpp>

namespace blescanner {

using namespace std::chrono_literals;

namespace {

std::shared_ptr<platform::GattDeviceService> firstService(const platform::GattDeviceServicesResult& result) {
    if (!result.services || result.services->empty()) return nullptr;
    return result.services->front();
}

}  // namespace

bool BLEIFModern::prepareConnection(std::uint64_t /*address*/, std::uint32_t /*timeoutMs*/) {
    return true;
}

std::shared_ptr<platform::GattDeviceService> BLEIFModern::getService(const platform::Guid& serviceUuid,
                                                                     std::uint64_t address) {
    if (!findDevice(serviceUuid, address)) return nullptr;
    LOG_S(INFO) << "Got LE Device ";
    LOG_S(INFO) << "Retrieving service for " << platform::toString(serviceUuid);
    context().stop.sleep(100ms);
    requestStackFlush(false);

    const auto first = lookUpService(serviceUuid);
    if (!first) return nullptr;
    if (auto service = firstService(*first)) {
        LOG_S(INFO) << "Got Service (2) ";
        return service;
    }
    const std::size_t found = first->services ? first->services->size() : 0;
    const std::size_t known = context().device->gattServices().size();
    LOG_S(ERROR) << "Could not get service at position 0! Size is " << found << ". GATT Size is " << known;
    context().stop.sleep(2500ms);
    if (!refreshServices(serviceUuid, true) && !refreshServices(serviceUuid, false)) {
        return giveUpOnService(serviceUuid);
    }
    LOG_S(INFO) << "Retrying to get service...";
    const auto second = lookUpService(serviceUuid);
    if (!second) return nullptr;
    if (auto service = firstService(*second)) {
        LOG_S(INFO) << "Got Service (3) ";
        return service;
    }
    LOG_S(WARNING) << "The second look-up ended with status " << statusText(second->status);
    return giveUpOnService(serviceUuid);
}

bool BLEIFModern::findDevice(const platform::Guid& serviceUuid, std::uint64_t address) {
    const auto lookUp = startDeviceLookUp(address);
    if (!lookUp) return false;
    await(*lookUp);
    context().device = lookUp->getResults();
    if (context().device) return true;

    LOG_S(WARNING) << "Retrying to get device...";
    const auto retry = platform::bluetoothLEDeviceFromAddressAsync(address);
    if (!retry) {
        LOG_S(ERROR) << "Could not get LE device!";
        return false;
    }
    await(*retry);
    context().stop.sleep(100ms);
    context().device = retry->getResults();
    if (context().device) return true;

    LOG_S(ERROR) << "LE Device is NULL [m]! " << platform::toString(serviceUuid);
    LOG_S(ERROR) << "LE Error code is " << retry->errorCode() << ". Status is "
                 << static_cast<int>(retry->status());
    return false;
}

// Returns nothing when no operation came back.
std::optional<platform::GattDeviceServicesResult> BLEIFModern::lookUpService(
    const platform::Guid& serviceUuid) {
    const auto lookUp = context().device->getGattServicesForUuidAsync(serviceUuid);
    if (!lookUp) {
        LOG_S(ERROR) << "No operation came back for the service look-up";
        return std::nullopt;
    }
    await(*lookUp);
    context().stop.sleep(250ms);
    LOG_S(INFO) << "LE Connection status: " << static_cast<int>(context().device->connectionStatus());
    auto result = lookUp->getResults();
    LOG_S(INFO) << "Got Service...";
    return result;
}

// Lists all services, only to make the platform read them from the device again. True when the list has the
// wanted one.
bool BLEIFModern::refreshServices(const platform::Guid& serviceUuid, bool cached) {
    LOG_S(INFO) << "Trigger workaround to refresh GATT services...";
    loguru::flush();
    LOG_S(INFO) << "Trigger done...";
    const auto listing = context().device->getGattServicesAsync(
        cached ? platform::BluetoothCacheMode::cached : platform::BluetoothCacheMode::uncached);
    LOG_S(INFO) << "Retrieving available GATT services (ALL)...";
    platform::GattDeviceServicesResult result;
    if (listing) {
        await(*listing);
        result = listing->getResults();
    }
    if (!result.services) {
        LOG_S(WARNING) << (listing ? "The listing ended with status " + statusText(result.status)
                                   : "No operation came back for the listing");
        LOG_S(WARNING) << "No services returned!";
        LOG_S(WARNING) << "Could not get device services (" << cached << ")";
        return false;
    }
    LOG_S(INFO) << "Found " << result.services->size() << " GATT services.";
    for (const auto& service : *result.services) {
        const platform::Guid uuid = service->uuid();
        LOG_S(INFO) << "Found GATT service UUID: " << platform::toString(uuid);
        if (uuid != serviceUuid) continue;
        LOG_S(INFO) << "Found match! Requesting retry!";
        return true;
    }
    return false;
}

std::shared_ptr<platform::GattDeviceService> BLEIFModern::giveUpOnService(const platform::Guid& serviceUuid) {
    requestStackFlush(true);
    releaseDevice();
    LOG_S(ERROR) << "Could not get service " << platform::toString(serviceUuid);
    return nullptr;
}

std::shared_ptr<platform::GattCharacteristic> BLEIFModern::getCharacteristic(
    const std::shared_ptr<platform::GattDeviceService>& service, const platform::Guid& uuid) {
    if (!service) return nullptr;
    context().stop.check();
    const auto lookUp = service->getCharacteristicsForUuidAsync(uuid);
    if (!lookUp) {
        LOG_S(ERROR) << "No operation came back for characteristic " << platform::toString(uuid);
        return nullptr;
    }
    await(*lookUp);
    const auto result = lookUp->getResults();
    LOG_S(INFO) << "Characteristics...";
    if (!result.characteristics || result.characteristics->empty()) {
        LOG_S(WARNING) << "No characteristic " << platform::toString(uuid)
                       << ", the look-up ended with status " << statusText(result.status);
        return nullptr;
    }
    const auto& characteristic = result.characteristics->front();
    LOG_S(INFO) << "Characteristic " << platform::toString(characteristic->uuid());
    return characteristic;
}

}  // namespace blescanner
