#include "platform/advertisement.h"

#include <windows.devices.bluetooth.advertisement.h>

#include "tests/winrt_provider/events.h"
#include "tests/winrt_provider/provider.h"
#include "tests/winrt_provider/view.h"

namespace provider {

namespace {

namespace advertising = ABI::Windows::Devices::Bluetooth::Advertisement;
using ReceivedHandler =
    ABI::Windows::Foundation::ITypedEventHandler<advertising::BluetoothLEAdvertisementWatcher*,
                                                 advertising::BluetoothLEAdvertisementReceivedEventArgs*>;
using GuidList = ABI::Windows::Foundation::Collections::IVector<GUID>;

using List = std::optional<std::vector<platform::Guid>>;
struct Guids final : View<Guids, List, GuidList> {
    using View::View;

    HRESULT GetAt(UINT32 index, GUID* out) override {
        return index < shown_->size() ? give(out, [&] { return (*shown_)[index]; }) : kOutOfBounds;
    }
    HRESULT get_Size(UINT32* out) override {
        return give(out, [&] { return shown_->size(); });
    }
};

using Args = platform::AdvertisementReceivedEventArgs;
struct Advertisement final : View<Advertisement, Args, advertising::IBluetoothLEAdvertisement> {
    using View::View;

    HRESULT get_LocalName(HSTRING* out) override { return show(out, &Args::localName); }
    HRESULT get_ServiceUuids(GuidList** out) override { return show<Guids>(out, &Args::serviceUuids); }
};

struct Received final : View<Received, Args, advertising::IBluetoothLEAdvertisementReceivedEventArgs> {
    using View::View;

    HRESULT get_BluetoothAddress(UINT64* out) override { return show(out, &Args::bluetoothAddress); }
    HRESULT get_Advertisement(advertising::IBluetoothLEAdvertisement** out) override {
        return show<Advertisement>(out, std::identity());
    }
};

struct Watcher final : View<Watcher, std::unique_ptr<platform::AdvertisementWatcher>,
                            advertising::IBluetoothLEAdvertisementWatcher> {
    Watcher() : View(platform::createAdvertisementWatcher()) {}

    HRESULT put_ScanningMode(advertising::BluetoothLEScanningMode mode) override {
        return call(&platform::AdvertisementWatcher::setScanningMode, FromAbi{mode});
    }
    HRESULT Start() override { return call(&platform::AdvertisementWatcher::start); }
    HRESULT Stop() override { return call(&platform::AdvertisementWatcher::stop); }
    HRESULT add_Received(ReceivedHandler* handler, Token* out) override {
        const auto tell = [this, handler = ComPtr<ReceivedHandler>(handler)](const auto* args) {
            if (const auto sender = self())
                handler->Invoke(sender.Get(), args ? make<Received>(*args).Get() : nullptr);
        };
        return handlers_.add(out, [&] { return shown_->onReceived(tell); });
    }
    HRESULT remove_Received(Token token) override { return handlers_.remove(token); }

  private:
    Registrations handlers_;
};

}  // namespace

ComPtr<IActivationFactory> advertisementWatcherFactory() {
    return make<Activator<Watcher>>();
}

}  // namespace provider
