#include <cstdint>
#include <memory>

#include "blescanner/bleif_impl.h"
#include "blescanner/cmdpipe.h"
#include "tests/fuzz/quiet_log.h"

namespace {

using namespace platform;

struct FinishedWrite : AsyncOperation<GattCommunicationStatus> {
    explicit FinishedWrite(std::uint8_t seed) : seed_(seed) {}
    AsyncStatus status() const override {
        return (seed_ & 0x30) == 0x30   ? AsyncStatus::error
               : (seed_ & 0x30) == 0x20 ? AsyncStatus::canceled
                                        : AsyncStatus::completed;
    }
    HResult errorCode() const override { return (seed_ & 1) != 0 ? kRoEClosed : kEFail; }
    std::string typeName() const override { return "write"; }
    GattCommunicationStatus getResults() override {
        if (status() != AsyncStatus::completed) throw PlatformError(errorCode());
        return static_cast<GattCommunicationStatus>(seed_ & 7);
    }
    std::uint8_t seed_;
};

struct Characteristic : GattCharacteristic {
    Guid id;
    std::uint8_t seed = 0;
    Guid uuid() const override { return id; }
    AsyncOperationPtr<GattCommunicationStatus> writeValueAsync(std::span<const std::uint8_t>,
                                                               GattWriteOption) override {
        if ((seed & 0x40) != 0) return nullptr;
        return std::make_shared<FinishedWrite>(seed);
    }
    AsyncOperationPtr<GattCommunicationStatus> writeClientCharacteristicConfigurationDescriptorAsync(
        GattClientCharacteristicConfigurationDescriptorValue) override {
        return nullptr;
    }
    Subscription onValueChanged(ValueChangedHandler) override { return {}; }
};

}  // namespace

// A series of value changes. Each has a byte for its kind, one for how writes end, one for its length, and
// its bytes.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const QuietLog quiet;
    auto context = std::make_shared<blescanner::TioContext>();
    context->dataPipeOwner = std::make_shared<blescanner::CNamedPipe>();
    context->dataPipe = context->dataPipeOwner.get();
    auto writable = std::make_shared<Characteristic>();
    context->crrxChar = writable;
    context->rxmtuChar = writable;
    blescanner::BLEIFModern interface(context);

    const Guid kinds[] = {blescanner::TX_UUID, blescanner::CRTX_UUID, blescanner::TXMTU_UUID,
                          blescanner::RX_UUID};
    while (size >= 3) {
        Characteristic sender;
        sender.id = kinds[data[0] & 3];
        writable->seed = data[1];
        const std::size_t length = std::min<std::size_t>(data[2] * 8U, size - 3);
        const GattValueChangedEventArgs args{{data + 3, length}};
        interface.__chValueChanged((data[0] & 0x10) != 0 ? nullptr : &sender,
                                   (data[0] & 0x20) != 0 ? nullptr : &args);
        data += 3 + length;
        size -= 3 + length;
    }
    return 0;
}
