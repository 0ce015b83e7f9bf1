// Device enumeration and custom pairing.
#include "platform/pairing.h"

#include <utility>

#include "bluetooth/callback_list.h"
#include "faulty.h"
#include "platform/address.h"
#include "platform/text.h"
#include "world.h"

namespace sim {

namespace {

using platform::DevicePairingResultStatus;
using Outcome = PairingOutcome;
using RequestListeners = bluetooth::CallbackList<platform::DevicePairingRequestedEventArgs&>;

constexpr auto kConnectionRejected = static_cast<DevicePairingResultStatus>(4);

class Request final : public platform::DevicePairingRequestedEventArgs {
  public:
    explicit Request(std::uint32_t kind) : kind_(static_cast<platform::DevicePairingKinds>(kind)) {}

    platform::DevicePairingKinds pairingKind() const override { return kind_; }
    std::wstring pin() const override { return L"123456"; }
    void accept() override { accepted_ = true; }
    void acceptWithPin(const std::wstring&) override { accepted_ = true; }

    bool accepted() const { return accepted_; }

  private:
    const platform::DevicePairingKinds kind_;
    bool accepted_ = false;
};

// One ceremony. The peripheral asks for its own kind of it, whatever was offered.
class Ceremony final : public ServiceThread {
  public:
    Ceremony(std::shared_ptr<TioPeripheral> peripheral, std::shared_ptr<RequestListeners> listeners,
             std::shared_ptr<Operation<Outcome>> operation)
        : peripheral_(std::move(peripheral)),
          listeners_(std::move(listeners)),
          operation_(std::move(operation)) {}

  private:
    void run() override { operation_->complete(hold()); }

    DevicePairingResultStatus hold() {
        const auto& pairing = peripheral_->scenario().pairing;
        Request request(pairing.kind);
        try {
            listeners_->call(request);
        } catch (...) {
            return DevicePairingResultStatus::failed;
        }
        if (!request.accepted()) return DevicePairingResultStatus::rejectedByHandler;
        const auto result = static_cast<DevicePairingResultStatus>(pairing.result);
        if (result == DevicePairingResultStatus::paired) peripheral_->setPaired();
        return result;
    }

    const std::shared_ptr<TioPeripheral> peripheral_;
    const std::shared_ptr<RequestListeners> listeners_;
    const std::shared_ptr<Operation<Outcome>> operation_;
};

class CustomPairing final : public platform::DeviceInformationCustomPairing {
  public:
    explicit CustomPairing(std::shared_ptr<TioPeripheral> peripheral) : peripheral_(std::move(peripheral)) {}

    platform::Subscription onPairingRequested(PairingRequestedHandler handler) override {
        return addCallback(listeners_, std::move(handler));
    }

    platform::AsyncOperationPtr<Outcome> pairAsync(platform::DevicePairingKinds,
                                                   platform::DevicePairingProtectionLevel) override {
        if (const auto fault = peripheral_->pass({FaultPoint::Call::pair})) {
            return faultyOperation<Outcome>(*peripheral_, *fault);
        }
        if (!peripheral_->runtime().bluetoothOn()) return completed<Outcome>(kConnectionRejected);
        if (listeners_->empty())
            return completed<Outcome>(DevicePairingResultStatus::requiredHandlerNotRegistered);
        auto operation = peripheral_->runtime().pendingOperation<Outcome>();
        peripheral_->runtime().launch(std::make_shared<Ceremony>(peripheral_, listeners_, operation));
        return operation;
    }

  private:
    const std::shared_ptr<TioPeripheral> peripheral_;
    const std::shared_ptr<RequestListeners> listeners_ = std::make_shared<RequestListeners>();
};

class Pairing final : public platform::DeviceInformationPairing {
  public:
    explicit Pairing(std::shared_ptr<TioPeripheral> peripheral)
        : peripheral_(std::move(peripheral)), custom_(std::make_shared<CustomPairing>(peripheral_)) {}

    bool isPaired() const override { return peripheral_->paired(); }
    bool canPair() const override { return peripheral_->scenario().pairing.canPair; }
    std::shared_ptr<platform::DeviceInformationCustomPairing> custom() override {
        return peripheral_->scenario().pairing.custom ? custom_ : nullptr;
    }

  private:
    const std::shared_ptr<TioPeripheral> peripheral_;
    const std::shared_ptr<CustomPairing> custom_;
};

class Information final : public platform::DeviceInformation {
  public:
    explicit Information(std::shared_ptr<TioPeripheral> peripheral)
        : id_(L"BluetoothLE#Sim-" + platform::widen(platform::formatAddress(peripheral->scenario().address))),
          pairing_(std::make_shared<Pairing>(std::move(peripheral))) {}

    std::wstring id() const override { return id_; }
    std::shared_ptr<platform::DeviceInformationPairing> pairing() override { return pairing_; }

  private:
    const std::wstring id_;
    const std::shared_ptr<Pairing> pairing_;
};

}  // namespace

}  // namespace sim

namespace platform {

std::wstring deviceSelectorFromBluetoothAddress(std::uint64_t address) {
    return L"Sim.Bluetooth.Le.DeviceAddress:=\"" + widen(formatAddress(address)) + L"\"";
}

AsyncOperationPtr<DeviceInformationCollection> findAllDevicesAsync(const std::wstring& selector) {
    DeviceInformationCollection found(std::in_place);
    for (const auto& peripheral : sim::requireWorld()->peripherals()) {
        if (deviceSelectorFromBluetoothAddress(peripheral->scenario().address) != selector) continue;
        found->push_back(std::make_shared<sim::Information>(peripheral));
    }
    return sim::completed(std::move(found));
}

}  // namespace platform
