// The way to the peripheral on systems with the newer GATT calls.
#pragma once

#include "bleif_common.h"

namespace blescanner {

class BLEIFModern : public IBLEIF {
  public:
    using IBLEIF::IBLEIF;

    // Nothing to prepare: connects on demand.
    bool prepareConnection(std::uint64_t address, std::uint32_t timeoutMs) override;
    // One retry for the device; one retry for the service, after a full listing has made the platform read
    // the device's services anew.
    std::shared_ptr<platform::GattDeviceService> getService(const platform::Guid& serviceUuid,
                                                            std::uint64_t address) override;
    std::shared_ptr<platform::GattCharacteristic> getCharacteristic(
        const std::shared_ptr<platform::GattDeviceService>& service, const platform::Guid& uuid) override;

  private:
    bool findDevice(const platform::Guid& serviceUuid, std::uint64_t address);
    std::optional<platform::GattDeviceServicesResult> lookUpService(const platform::Guid& serviceUuid);
    bool refreshServices(const platform::Guid& serviceUuid, bool cached);
    std::shared_ptr<platform::GattDeviceService> giveUpOnService(const platform::Guid& serviceUuid);
};

}  // namespace blescanner
