// The GATT interface of one link session.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "lecomm.h"
#include "platform/async.h"
#include "platform/gatt.h"
#include "waiting.h"

namespace blescanner {

// The way to the peripheral's TIO service: one object per session, owned by its communication thread, on
// which every operation runs except the value-changed handler. Results go into the session's TioContext.
// Failed platform calls are thrown as PlatformError unless an operation says otherwise; a session that has
// been stopped makes no call and leaves by Stopped.
class IBLEIF {
  public:
    explicit IBLEIF(std::shared_ptr<TioContext> context) : shared_(std::move(context)), context_(*shared_) {}
    virtual ~IBLEIF() = default;
    IBLEIF(const IBLEIF&) = delete;
    IBLEIF& operator=(const IBLEIF&) = delete;

    // Whatever must happen before the service can be asked for.
    virtual bool prepareConnection(std::uint64_t address, std::uint32_t timeoutMs) = 0;
    // Stores the device in the context. Null on failure.
    virtual std::shared_ptr<platform::GattDeviceService> getService(const platform::Guid& serviceUuid,
                                                                    std::uint64_t address) = 0;
    // Null if the service is null or has no such characteristic.
    virtual std::shared_ptr<platform::GattCharacteristic> getCharacteristic(
        const std::shared_ptr<platform::GattDeviceService>& service, const platform::Guid& uuid) = 0;

    // Asks for indications or notifications and has them handled; a failure is logged.
    virtual void __setSubscription(const std::shared_ptr<platform::GattCharacteristic>& characteristic,
                                   bool indicate);
    // Sends the low 8 bits of the count. `wait`: the write is awaited and judged by recoverOnError.
    virtual void grantCredits(const std::shared_ptr<platform::GattCharacteristic>& characteristic,
                              std::uint32_t count, bool wait);
    // True when the service could not be had in a way that a radio reset may mend.
    virtual bool needsStackFlush() const { return stackFlushRequested_; }

    // The value-changed handler. Runs on a thread of the platform; throws nothing.
    void __chValueChanged(platform::GattCharacteristic* sender,
                          const platform::GattValueChangedEventArgs* args);

  protected:
    TioContext& context() { return context_; }
    void await(const platform::AsyncInfo& operation) { awaitOperation(operation, context_.stop); }
    void requestStackFlush(bool requested) { stackFlushRequested_ = requested; }
    // The first steps of both generations.
    platform::AsyncOperationPtr<std::shared_ptr<platform::BluetoothLEDevice>> startDeviceLookUp(
        std::uint64_t address);
    void releaseDevice() { context_.device.reset(); }

  private:
    void valueChanged(platform::GattCharacteristic* sender, const platform::GattValueChangedEventArgs* args);
    void dataReceived(const platform::GattValueChangedEventArgs* args);
    void deliver(std::span<const std::uint8_t> bytes);
    void creditsReceived(const platform::GattValueChangedEventArgs* args);
    void mtuReceived(const platform::GattValueChangedEventArgs* args);
    void replenishLocalCredits();
    void writeCharacteristicU16(const std::shared_ptr<platform::GattCharacteristic>& characteristic,
                                std::uint16_t value);

    std::shared_ptr<TioContext> shared_;
    TioContext& context_;
    bool stackFlushRequested_ = false;
};

}  // namespace blescanner
