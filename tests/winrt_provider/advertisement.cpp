#include "platform/advertisement.h"

#include <windows.devices.bluetooth.advertisement.h>
#include <windows.foundation.h>

#include "tests/winrt_provider/events.h"
#include "tests/winrt_provider/provider.h"

namespace provider {

namespace {

namespace advertising = ABI::Windows::Devices::Bluetooth::Advertisement;
using ReceivedHandler =
    ABI::Windows::Foundation::ITypedEventHandler<advertising::BluetoothLEAdvertisementWatcher*,
                                                 advertising::BluetoothLEAdvertisementReceivedEventArgs*>;
using GuidList = ABI::Windows::Foundation::Collections::IVector<GUID>;

class Guids final : public Object<Guids, GuidList> {
  public:
    explicit Guids(const std::vector<platform::Guid>& guids) : guids_(guids) {}

    HRESULT GetAt(UINT32 index, GUID* out) override {
        return index < guids_.size() ? give(out, [&] { return guids_[index]; }) : kOutOfBounds;
    }
    HRESULT get_Size(UINT32* out) override {
        return give(out, [&] { return guids_.size(); });
    }

  private:
    const std::vector<platform::Guid> guids_;
};

class Advertisement final : public Object<Advertisement, advertising::IBluetoothLEAdvertisement> {
  public:
    explicit Advertisement(const platform::AdvertisementReceivedEventArgs& args) : args_(args) {}

    HRESULT get_LocalName(HSTRING* out) override {
        return give(out, [&] { return args_.localName; });
    }
    HRESULT get_ServiceUuids(GuidList** out) override {
        return give(out, [&] { return args_.serviceUuids ? make<Guids>(*args_.serviceUuids) : nullptr; });
    }

  private:
    const platform::AdvertisementReceivedEventArgs args_;
};

class Received final : public Object<Received, advertising::IBluetoothLEAdvertisementReceivedEventArgs> {
  public:
    explicit Received(const platform::AdvertisementReceivedEventArgs& args) : args_(args) {}

    HRESULT get_BluetoothAddress(UINT64* out) override {
        return give(out, [&] { return args_.bluetoothAddress; });
    }
    HRESULT get_Advertisement(advertising::IBluetoothLEAdvertisement** out) override {
        return give(out, [&] { return make<Advertisement>(args_); });
    }

  private:
    const platform::AdvertisementReceivedEventArgs args_;
};

class Watcher final : public Object<Watcher, advertising::IBluetoothLEAdvertisementWatcher> {
  public:
    HRESULT put_ScanningMode(advertising::BluetoothLEScanningMode mode) override {
        return guarded([&] { watcher_->setScanningMode(static_cast<platform::ScanningMode>(mode)); });
    }
    HRESULT Start() override {
        return guarded([&] { watcher_->start(); });
    }
    HRESULT Stop() override {
        return guarded([&] { watcher_->stop(); });
    }
    HRESULT add_Received(ReceivedHandler* handler, EventRegistrationToken* out) override {
        const auto tell = [this, handler = ComPtr<ReceivedHandler>(handler)](const auto* args) {
            if (const auto sender = self())
                handler->Invoke(sender.Get(), args ? make<Received>(*args).Get() : nullptr);
        };
        return registrations_.add(out, [&] { return watcher_->onReceived(tell); });
    }
    HRESULT remove_Received(EventRegistrationToken token) override { return registrations_.remove(token); }

  private:
    const std::unique_ptr<platform::AdvertisementWatcher> watcher_ = platform::createAdvertisementWatcher();
    EventRegistrations registrations_;
};

class WatcherFactory final : public FactoryOf<WatcherFactory> {
  public:
    HRESULT ActivateInstance(IInspectable** out) override {
        return give(out, [] { return make<Watcher>(); });
    }
};

}  // namespace

ComPtr<IActivationFactory> advertisementWatcherFactory() {
    return make<WatcherFactory>();
}

}  // namespace provider
