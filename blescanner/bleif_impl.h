// Reaches the peripheral on systems with the newer GATT calls.
#pragma once

#include "bleif_common.h"

namespace blescanner {

class BLEIFModern : public IBLEIF {
  public:
    using IBLEIF::IBLEIF;

    // Does nothing: the platform connects when the service is asked for.
    bool prepareConnection(std::uint64_t address, std::uint32_t timeoutMs) override;
    // Looks for the device up to two times. Looks for the service a second time when a listing of all
    // services, which makes the platform read them again, has shown it.
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
