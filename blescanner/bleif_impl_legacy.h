// The way to the peripheral on systems with the older GATT calls only: the device is paired first, and its
// service found by walking the list of all services.
#pragma once

#include <string>

#include "bleif_common.h"
#include "platform/pairing.h"

namespace blescanner {

class BLEIFLegacy : public IBLEIF {
  public:
    explicit BLEIFLegacy(std::shared_ptr<TioContext> context);
    ~BLEIFLegacy() override;

    // Pairs every device of the address that is not paired yet. True when at least one got paired by this
    // call; the time-out is not used.
    bool prepareConnection(std::uint64_t address, std::uint32_t timeoutMs) override;
    std::shared_ptr<platform::GattDeviceService> getService(const platform::Guid& serviceUuid,
                                                            std::uint64_t address) override;
    std::shared_ptr<platform::GattCharacteristic> getCharacteristic(
        const std::shared_ptr<platform::GattDeviceService>& service, const platform::Guid& uuid) override;

  private:
    bool connectLegacy(std::uint64_t address);
    std::vector<std::shared_ptr<platform::GattDeviceService>> listServices();
};

// What a pairing outcome means, for the log; empty for a value that the platform has added since.
const wchar_t* pairingResultText(platform::DevicePairingResultStatus status);

}  // namespace blescanner
