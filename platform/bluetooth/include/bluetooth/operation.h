// Asynchronous operations of the Bluetooth sides.
//
// Threads: any. The first of complete(), fail() and cancel() decides how an operation ends, later ones do
// nothing.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/async.h"
#include "platform/gatt.h"
#include "platform/pairing.h"
#include "platform/radio.h"

namespace bluetooth {

// E_ILLEGAL_METHOD_CALL: a result that is not there yet.
inline constexpr platform::HResult kIllegalMethodCall = platform::hresult(0x8000000E);

template <class Result>
inline constexpr const char* kResultName = nullptr;
template <>
inline constexpr const char* kResultName<platform::RadioList> = "IVectorView<Radio>";
template <>
inline constexpr const char* kResultName<platform::RadioAccessStatus> = "RadioAccessStatus";
template <>
inline constexpr const char* kResultName<std::shared_ptr<platform::BluetoothLEDevice>> = "BluetoothLEDevice";
template <>
inline constexpr const char* kResultName<platform::GattDeviceServicesResult> = "GattDeviceServicesResult";
template <>
inline constexpr const char* kResultName<platform::GattCharacteristicsResult> = "GattCharacteristicsResult";
template <>
inline constexpr const char* kResultName<platform::GattCommunicationStatus> = "GattCommunicationStatus";
template <>
inline constexpr const char* kResultName<platform::DeviceInformationCollection> =
    "DeviceInformationCollection";
template <>
inline constexpr const char* kResultName<std::optional<platform::DevicePairingResultStatus>> =
    "DevicePairingResult";

class Cancelable {
  public:
    virtual ~Cancelable() = default;
    virtual void cancel() noexcept = 0;
};

template <class Result>
class Operation final : public platform::AsyncOperation<Result>, public Cancelable {
  public:
    using Status = platform::AsyncStatus;

    // Runs until somebody ends it.
    Operation() = default;
    // Has completed.
    explicit Operation(Result result)
        : result_(std::move(result)), ended_(true), status_(Status::completed) {}

    void complete(Result result) {
        if (ended_.exchange(true)) return;
        result_ = std::move(result);
        status_.store(Status::completed, std::memory_order_release);
    }
    void fail(platform::HResult code) { fail(platform::PlatformError(code)); }
    void fail(const platform::PlatformError& error) {
        if (ended_.exchange(true)) return;
        error_ = error;
        status_.store(Status::error, std::memory_order_release);
    }
    void cancel() noexcept override {
        if (ended_.exchange(true)) return;
        status_.store(Status::canceled, std::memory_order_release);
    }

    Status status() const override { return status_.load(std::memory_order_acquire); }
    platform::HResult errorCode() const override { return status() == Status::error ? error_->code() : 0; }
    std::string typeName() const override {
        return std::string("IAsyncOperation<") + kResultName<Result> + ">";
    }

    Result getResults() override {
        const Status now = status();
        if (now == Status::error) throw platform::PlatformError(*error_);
        if (now == Status::canceled) throw platform::PlatformError(platform::kECancelled);
        if (now == Status::started) throw platform::PlatformError(kIllegalMethodCall);
        return result_;
    }

  private:
    Result result_{};
    std::optional<platform::PlatformError> error_;
    std::atomic<bool> ended_ = false;
    std::atomic<Status> status_ = Status::started;  // written last: what it announces is there
};

template <class Result>
platform::AsyncOperationPtr<Result> completed(Result result) {
    return std::make_shared<Operation<Result>>(std::move(result));
}

}  // namespace bluetooth
