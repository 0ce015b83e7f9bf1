// Reaches the peripheral on systems that have only the older GATT calls: pairs the device first, and looks
// for the service in the list of all services.
#pragma once

#include <string>

#include "bleif_common.h"
#include "platform/pairing.h"

namespace blescanner {

class BLEIFLegacy : public IBLEIF {
  public:
    explicit BLEIFLegacy(std::shared_ptr<TioContext> context);
    ~BLEIFLegacy() override;

    // Pairs the devices of the address that are not paired yet. True when this call has paired one. The
    // time-out is not used.
    bool prepareConnection(std::uint64_t address, std::uint32_t timeoutMs) override;
    std::shared_ptr<platform::GattDeviceService> getService(const platform::Guid& serviceUuid,
                                                            std::uint64_t address) override;
    std::shared_ptr<platform::GattCharacteristic> getCharacteristic(
        const std::shared_ptr<platform::GattDeviceService>& service, const platform::Guid& uuid) override;

  private:
    bool connectLegacy(std::uint64_t address);
    std::vector<std::shared_ptr<platform::GattDeviceService>> listServices();
};

// The text of a pairing outcome for the log; empty for a value that this program does not know.
const wchar_t* pairingResultText(platform::DevicePairingResultStatus status);

}  // namespace blescanner
