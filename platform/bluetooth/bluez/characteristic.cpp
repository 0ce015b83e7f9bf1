#include <map>
#include <mutex>

#include "bluetooth/callback_list.h"
#include "error.h"
#include "gatt.h"
#include "packet_writer.h"
#include "value_source.h"

namespace bluez {

namespace {

using platform::AsyncOperationPtr;
using platform::GattCommunicationStatus;
using platform::GattValueChangedEventArgs;
using platform::GattWriteOption;
using platform::PlatformError;
using DescriptorValue = platform::GattClientCharacteristicConfigurationDescriptorValue;

class Characteristic final : public platform::GattCharacteristic {
  public:
    Characteristic(std::shared_ptr<Connection> connection, std::string path, const platform::Guid& uuid)
        : connection_(std::move(connection)),
          path_(std::move(path)),
          uuid_(uuid),
          packets_(connection_, path_) {}

    platform::Guid uuid() const override { return uuid_; }

    AsyncOperationPtr<GattCommunicationStatus> writeValueAsync(std::span<const std::uint8_t> value,
                                                               GattWriteOption option) override;

    // bluetoothd writes the descriptor by itself: notifications, or indications if the peripheral offers
    // nothing else.
    AsyncOperationPtr<GattCommunicationStatus> writeClientCharacteristicConfigurationDescriptorAsync(
        DescriptorValue value) override;

    platform::Subscription onValueChanged(ValueChangedHandler handler) override {
        return bluetooth::addCallback(
            handlers_, [this, handler = std::move(handler)](const GattValueChangedEventArgs* args) {
                handler(this, args);
            });
    }

  private:
    using Handlers = bluetooth::CallbackList<const GattValueChangedEventArgs*>;

    AsyncOperationPtr<GattCommunicationStatus> attempt(const std::function<void()>& call) const;
    GattCommunicationStatus judge(const PlatformError& error) const;
    void call(std::span<const std::uint8_t> value, const char* type) const;

    const std::shared_ptr<Connection> connection_;
    const std::string path_;
    const platform::Guid uuid_;
    PacketWriter packets_;
    const std::shared_ptr<Handlers> handlers_ = std::make_shared<Handlers>();
    std::mutex sourceMutex_;               // orders subscriptions
    std::unique_ptr<ValueSource> source_;  // last: calls the handlers
};

AsyncOperationPtr<GattCommunicationStatus> Characteristic::writeValueAsync(
    std::span<const std::uint8_t> value, GattWriteOption option) {
    // Shared by all packets that went well, so that a packet allocates nothing.
    static const AsyncOperationPtr<GattCommunicationStatus> wellDone =
        bluetooth::completed(GattCommunicationStatus::success);

    if (option == GattWriteOption::writeWithResponse) return attempt([&] { call(value, "request"); });
    using Outcome = PacketWriter::Outcome;
    auto outcome = Outcome::sent;
    try {
        outcome = packets_.write(value);
    } catch (const PlatformError& error) {
        return attempt([&] { throw error; });
    }
    if (outcome == Outcome::sent) return wellDone;
    // Without a type bluetoothd takes whatever can carry the value, a long write if it must.
    return attempt([&] { call(value, outcome == Outcome::tooLong ? nullptr : "command"); });
}

void Characteristic::call(std::span<const std::uint8_t> value, const char* type) const {
    connection_->requireLink();
    std::map<std::string, sdbus::Variant> options;
    if (type) options["type"] = std::string(type);
    connection_->bus().call({path_, kGattCharacteristic, "WriteValue"},
                            std::vector<std::uint8_t>(value.begin(), value.end()), options);
}

AsyncOperationPtr<GattCommunicationStatus>
Characteristic::writeClientCharacteristicConfigurationDescriptorAsync(DescriptorValue value) {
    return attempt([&] {
        const std::lock_guard lock(sourceMutex_);
        source_.reset();
        if (value == DescriptorValue::none) return;
        source_ = subscribe(connection_, path_, [this](std::span<const std::uint8_t> bytes) {
            const GattValueChangedEventArgs args{bytes};
            handlers_->call(&args);
        });
    });
}

AsyncOperationPtr<GattCommunicationStatus> Characteristic::attempt(const std::function<void()>& call) const {
    return run([&] {
        try {
            call();
            return GattCommunicationStatus::success;
        } catch (const PlatformError& error) {
            return judge(error);
        }
    });
}

// A call fails in many ways while the link goes down. All of them mean that the link is lost.
GattCommunicationStatus Characteristic::judge(const PlatformError& error) const {
    if (error.code() == platform::kECancelled) throw error;
    if (connection_->gone()) throw PlatformError(platform::kRoEClosed);
    return connection_->connected() ? statusOf(error) : GattCommunicationStatus::unreachable;
}

}  // namespace

std::shared_ptr<platform::GattCharacteristic> makeCharacteristic(std::shared_ptr<Connection> connection,
                                                                 std::string path,
                                                                 const platform::Guid& uuid) {
    return std::make_shared<Characteristic>(std::move(connection), std::move(path), uuid);
}

}  // namespace bluez
