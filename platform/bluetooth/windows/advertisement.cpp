#include "platform/advertisement.h"

#include <activation.h>
#include <windows.devices.bluetooth.advertisement.h>

#include "event_handler.h"

namespace platform {

namespace {

namespace advertising = ABI::Windows::Devices::Bluetooth::Advertisement;
using winrt::ComPtr;
using GuidList = ABI::Windows::Foundation::Collections::IVector<GUID>;

std::optional<std::vector<Guid>> guidsOf(const ComPtr<GuidList>& list) {
    if (!list) return std::nullopt;
    std::vector<Guid> guids;
    const UINT32 size = winrt::valueOf(list, &GuidList::get_Size);
    for (UINT32 index = 0; index < size; ++index) {
        GUID guid{};
        winrt::check(list->GetAt(index, &guid));
        guids.push_back(winrt::fromRuntime(guid));
    }
    return guids;
}

AdvertisementReceivedEventArgs received(
    const ComPtr<advertising::IBluetoothLEAdvertisementReceivedEventArgs>& args) {
    AdvertisementReceivedEventArgs result;
    result.bluetoothAddress =
        winrt::valueOf(args, &advertising::IBluetoothLEAdvertisementReceivedEventArgs::get_BluetoothAddress);
    const auto advertisement =
        winrt::objectOf(args, &advertising::IBluetoothLEAdvertisementReceivedEventArgs::get_Advertisement);
    if (!advertisement) return result;
    result.serviceUuids =
        guidsOf(winrt::objectOf(advertisement, &advertising::IBluetoothLEAdvertisement::get_ServiceUuids));
    result.localName = winrt::textOf(advertisement, &advertising::IBluetoothLEAdvertisement::get_LocalName);
    return result;
}

class WindowsAdvertisementWatcher final : public AdvertisementWatcher {
  public:
    explicit WindowsAdvertisementWatcher(ComPtr<advertising::IBluetoothLEAdvertisementWatcher> watcher)
        : watcher_(std::move(watcher)) {}

    void setScanningMode(ScanningMode mode) override {
        winrt::check(watcher_->put_ScanningMode(static_cast<advertising::BluetoothLEScanningMode>(mode)));
    }

    Subscription onReceived(ReceivedHandler handler) override {
        using Args = advertising::IBluetoothLEAdvertisementReceivedEventArgs;
        return winrt::subscribe<advertising::IBluetoothLEAdvertisementWatcher, Args>(
            watcher_, &advertising::IBluetoothLEAdvertisementWatcher::add_Received,
            &advertising::IBluetoothLEAdvertisementWatcher::remove_Received,
            [handler = std::move(handler)](advertising::IBluetoothLEAdvertisementWatcher*, Args* args) {
                if (!args) return handler(nullptr);
                const auto advertisement = received(args);
                handler(&advertisement);
            });
    }

    void start() override { winrt::check(watcher_->Start()); }
    void stop() override { winrt::check(watcher_->Stop()); }

  private:
    const ComPtr<advertising::IBluetoothLEAdvertisementWatcher> watcher_;
};

}  // namespace

std::unique_ptr<AdvertisementWatcher> createAdvertisementWatcher() {
    const auto watchers = winrt::activationFactory<IActivationFactory>(
        RuntimeClass_Windows_Devices_Bluetooth_Advertisement_BluetoothLEAdvertisementWatcher);
    return std::make_unique<WindowsAdvertisementWatcher>(
        winrt::query<advertising::IBluetoothLEAdvertisementWatcher>(
            winrt::objectOf(watchers, &IActivationFactory::ActivateInstance)));
}

}  // namespace platform
