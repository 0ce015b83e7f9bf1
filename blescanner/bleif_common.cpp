#include "bleif_common.h"

#include <algorithm>
#include <array>
#include <loguru.hpp>
#include <span>
#include <string>

#include "cmdpipe.h"
#include "platform/address.h"
#include "platform_error_text.h"

namespace blescanner {

using platform::GattCommunicationStatus;

namespace {

constexpr std::size_t kLongestNotification = 1024;  // bytes; what is longer is cut

// Little-endian; a missing high byte counts as zero.
std::uint16_t readU16(std::span<const std::uint8_t> value) {
    const unsigned high = value.size() > 1 ? value[1] : 0U;
    return static_cast<std::uint16_t>(value[0] | high << 8);
}

}  // namespace

platform::AsyncOperationPtr<std::shared_ptr<platform::BluetoothLEDevice>> IBLEIF::startDeviceLookUp(
    std::uint64_t address) {
    LOG_S(INFO) << "Get device from address " << platform::formatAddress(address);
    auto lookUp = platform::bluetoothLEDeviceFromAddressAsync(address);
    if (!lookUp) LOG_S(ERROR) << "Could not get LE device!";
    return lookUp;
}

void IBLEIF::__setSubscription(const std::shared_ptr<platform::GattCharacteristic>& characteristic,
                               bool indicate) {
    if (!characteristic) return;
    context_.stop.check();
    using Descriptor = platform::GattClientCharacteristicConfigurationDescriptorValue;
    const char* const kind = indicate ? "INDICATION" : "NOTIFICATION";
    LOG_S(INFO) << "__setSubscription " << platform::toString(characteristic->uuid()) << " " << kind;

    LOG_S(INFO) << "Setting onChange function";
    context_.subscriptions.push_back(characteristic->onValueChanged(
        [this](platform::GattCharacteristic* sender, const platform::GattValueChangedEventArgs* args) {
            __chValueChanged(sender, args);
        }));

    context_.stop.check();
    const auto write = characteristic->writeClientCharacteristicConfigurationDescriptorAsync(
        indicate ? Descriptor::indicate : Descriptor::notify);
    if (!write) {
        LOG_S(WARNING) << "No operation came back for the " << kind;
        return;
    }
    awaitOperation(*write, context_.stop);
    const GattCommunicationStatus status = write->getResults();
    if (status == GattCommunicationStatus::success) {
        LOG_S(INFO) << kind << "set OK";
    } else if (status == GattCommunicationStatus::unreachable) {
        LOG_S(ERROR) << "__setSubscriptions: Error when setting client characteristics configuration "
                        "descriptor UNREACHABLE!";
    } else {
        LOG_S(ERROR) << "Error when setting client characteristics configuration descriptor"
                     << static_cast<int>(status);
    }
}

void IBLEIF::grantCredits(const std::shared_ptr<platform::GattCharacteristic>& characteristic,
                          std::uint32_t count, bool wait) {
    if (!characteristic) {
        LOG_S(ERROR) << "Granting credits with NULL characteristic!";
        return;
    }
    context_.stop.check();
    const std::array<std::uint8_t, 1> value{static_cast<std::uint8_t>(count)};
    const auto write = characteristic->writeValueAsync(value, platform::GattWriteOption::writeWithResponse);
    if (!write) {
        LOG_S(ERROR) << "Set credits result: NULL!";
        return;
    }
    if (wait) {
        awaitOperation(*write, context_.stop);
        recoverOnError(context_, *write);
    }
    // Throws when the write ended in an error. During the set-up this ends the session, which is meant: a
    // peripheral without its first credits stays silent for ever.
    const GattCommunicationStatus status = write->getResults();
    if (status == GattCommunicationStatus::success) return;
    LOG_S(ERROR) << "Error setting credits!";
    LOG_S(WARNING) << "The peripheral did not get " << count << " credits, status " << statusText(status);
    if (context_.device) {
        LOG_S(ERROR) << "LE Connection is " << static_cast<int>(context_.device->connectionStatus());
    }
}

void IBLEIF::replenishLocalCredits() {
    const std::int32_t grant = TIO_LOCAL_CREDIT_TARGET - context_.localCredits;
    const std::int32_t total = context_.localCredits.fetch_add(grant) + grant;
    LOG_S(INFO) << "Granting local credits " << grant << " (" << total << ")";
    try {
        grantCredits(context_.crrxChar, static_cast<std::uint32_t>(grant), true);
    } catch (const std::exception&) {
        LOG_S(WARNING) << "The peripheral did not get " << grant << " credits and may fall silent";
        throw;
    }
}

void IBLEIF::writeCharacteristicU16(const std::shared_ptr<platform::GattCharacteristic>& characteristic,
                                    std::uint16_t value) {
    if (!characteristic) return;
    context_.stop.check();
    const std::array<std::uint8_t, 2> bytes{static_cast<std::uint8_t>(value & 0xFF),
                                            static_cast<std::uint8_t>(value >> 8)};
    const auto write = characteristic->writeValueAsync(bytes, platform::GattWriteOption::writeWithResponse);
    if (!write)
        throw platform::PlatformError(platform::kEFail, "No operation came back for a characteristic write");
    awaitOperation(*write, context_.stop);
    const auto status = recoverOnError(context_, *write);
    if (status && *status != GattCommunicationStatus::success) {
        LOG_S(WARNING) << "Writing " << value << " to " << platform::toString(characteristic->uuid())
                       << " ended with status " << statusText(*status);
    }
}

void IBLEIF::__chValueChanged(platform::GattCharacteristic* sender,
                              const platform::GattValueChangedEventArgs* args) {
    try {
        valueChanged(sender, args);
    } catch (const Stopped&) {
        // The session is about to end this handler's subscription.
    } catch (const platform::PlatformError& error) {
        LOG_S(ERROR) << "Unknown exception in __chValueChanged";
        LOG_S(ERROR) << describe(error);
    } catch (...) {
        LOG_S(ERROR) << "Unknown exception in __chValueChanged";
    }
}

void IBLEIF::valueChanged(platform::GattCharacteristic* sender,
                          const platform::GattValueChangedEventArgs* args) {
    if (sender == nullptr) {
        LOG_S(ERROR) << "__chValueChanged called with NULL sender!";
        return;
    }
    const platform::Guid uuid = sender->uuid();
    if (uuid == context_.txUuid) return dataReceived(args);
    if (uuid == context_.crtxUuid) return creditsReceived(args);
    if (uuid == context_.txmtuUuid) return mtuReceived(args);
    LOG_S(INFO) << "Notification from " << platform::toString(uuid) << " : "
                << (args ? args->value.size() : 0) << " bytes";
}

void IBLEIF::dataReceived(const platform::GattValueChangedEventArgs* args) {
    context_.localCredits.fetch_sub(1);  // even when the notification carries nothing
    if (args == nullptr) {
        LOG_S(ERROR) << "__chValueChanged (TX_UUID) with NULL data!";
    } else if (!args->value.empty()) {
        deliver(args->value.first(std::min(args->value.size(), kLongestNotification)));
        if (args->value.size() > kLongestNotification)
            context_.lostToClient.add(args->value.size() - kLongestNotification);
    }
    if (context_.localCredits <= TIO_CREDIT_REGRANT_THRESHOLD) replenishLocalCredits();
}

void IBLEIF::deliver(std::span<const std::uint8_t> bytes) {
    std::size_t taken = 0;
    if (CNamedPipe* const pipe = context_.dataPipe) {
        // Counted first: a client that has all the bytes may ask for the figure at once.
        context_.rxBytes.fetch_add(bytes.size(), std::memory_order_relaxed);
        taken = pipe->writeBytes(bytes);
    } else {
        LOG_S(ERROR) << "ERR(W) - NULL";
    }
    if (taken < bytes.size()) context_.lostToClient.add(bytes.size() - taken);
}

void IBLEIF::creditsReceived(const platform::GattValueChangedEventArgs* args) {
    if (args == nullptr) {
        LOG_S(ERROR) << "__chValueChanged (CRTX_UUID) with NULL data!";
        return;
    }
    if (args->value.empty()) return;
    const std::int32_t increment = args->value[0];  // any further byte has no meaning
    const std::int32_t total = context_.remoteCredits.fetch_add(increment) + increment;
    context_.creditsArrived.set();
    LOG_S(INFO) << "New TX credits (remote) = " << total << "(" << increment << ")";
}

void IBLEIF::mtuReceived(const platform::GattValueChangedEventArgs* args) {
    if (args == nullptr) {
        LOG_S(ERROR) << "__chValueChanged (TXMTU_UUID) with NULL data!";
        return;
    }
    if (args->value.empty()) return;
    const std::uint16_t mtu = readU16(args->value);
    LOG_S(INFO) << "New TX MTU = " << mtu;
    context_.txMtu = mtu;
    if (!context_.rxmtuChar) return;
    LOG_S(INFO) << "Setting MTU (RX MTU) = " << mtu << "...";
    writeCharacteristicU16(context_.rxmtuChar, mtu);
}

}  // namespace blescanner
