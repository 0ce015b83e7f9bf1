#include "platform/advertisement.h"

#include <windows.devices.bluetooth.advertisement.h>

#include "tests/winrt_provider/async.h"
#include "tests/winrt_provider/events.h"
#include "tests/winrt_provider/guid.h"
#include "tests/winrt_provider/provider.h"

namespace provider {

namespace {

namespace advertising = ABI::Windows::Devices::Bluetooth::Advertisement;
using ReceivedHandler =
    foundation::ITypedEventHandler<advertising::BluetoothLEAdvertisementWatcher*,
                                   advertising::BluetoothLEAdvertisementReceivedEventArgs*>;
using GuidList = foundation::Collections::IVector<GUID>;

class Guids final : public Object<Guids, GuidList> {
  public:
    static constexpr const wchar_t* kClassName = L"IVector<Guid>";

    explicit Guids(const std::vector<platform::Guid>& guids) {
        for (const auto& guid : guids)
            guids_.push_back(toAbi(guid));
    }

    HRESULT GetAt(UINT32 index, GUID* out) override {
        if (index >= guids_.size()) return kOutOfBounds;
        *out = guids_[index];
        return S_OK;
    }
    HRESULT get_Size(UINT32* out) override {
        *out = static_cast<UINT32>(guids_.size());
        return S_OK;
    }
    HRESULT GetView(foundation::Collections::IVectorView<GUID>**) override { return E_NOTIMPL; }
    HRESULT IndexOf(GUID, UINT32*, BOOLEAN*) override { return E_NOTIMPL; }
    HRESULT SetAt(UINT32, GUID) override { return E_NOTIMPL; }
    HRESULT InsertAt(UINT32, GUID) override { return E_NOTIMPL; }
    HRESULT RemoveAt(UINT32) override { return E_NOTIMPL; }
    HRESULT Append(GUID) override { return E_NOTIMPL; }
    HRESULT RemoveAtEnd() override { return E_NOTIMPL; }
    HRESULT Clear() override { return E_NOTIMPL; }
    HRESULT GetMany(UINT32, UINT32, GUID*, UINT32*) override { return E_NOTIMPL; }
    HRESULT ReplaceAll(UINT32, GUID*) override { return E_NOTIMPL; }

  private:
    std::vector<GUID> guids_;
};

struct AdvertisementSlots : advertising::IBluetoothLEAdvertisement {
    using Interface = advertising::IBluetoothLEAdvertisement;
    HRESULT get_Flags(IInspectable**) override { return E_NOTIMPL; }
    HRESULT put_Flags(IInspectable*) override { return E_NOTIMPL; }
    HRESULT put_LocalName(HSTRING) override { return E_NOTIMPL; }
    HRESULT get_ManufacturerData(IInspectable**) override { return E_NOTIMPL; }
    HRESULT get_DataSections(IInspectable**) override { return E_NOTIMPL; }
    HRESULT GetManufacturerDataByCompanyId(UINT16, IInspectable**) override { return E_NOTIMPL; }
    HRESULT GetSectionsByType(BYTE, IInspectable**) override { return E_NOTIMPL; }
};

class Advertisement final : public Object<Advertisement, AdvertisementSlots> {
  public:
    static constexpr const wchar_t* kClassName =
        L"Windows.Devices.Bluetooth.Advertisement.BluetoothLEAdvertisement";

    explicit Advertisement(platform::AdvertisementReceivedEventArgs args) : args_(std::move(args)) {}

    HRESULT get_LocalName(HSTRING* out) override { return handOut(args_.localName, out); }
    HRESULT get_ServiceUuids(GuidList** out) override {
        *out = nullptr;
        if (!args_.serviceUuids) return S_OK;
        return guarded([&] { handOut(make<Guids>(*args_.serviceUuids), out); });
    }

  private:
    const platform::AdvertisementReceivedEventArgs args_;
};

struct ReceivedSlots : advertising::IBluetoothLEAdvertisementReceivedEventArgs {
    using Interface = advertising::IBluetoothLEAdvertisementReceivedEventArgs;
    HRESULT get_RawSignalStrengthInDBm(INT16*) override { return E_NOTIMPL; }
    HRESULT get_AdvertisementType(INT32*) override { return E_NOTIMPL; }
    HRESULT get_Timestamp(INT64*) override { return E_NOTIMPL; }
};

class Received final : public Object<Received, ReceivedSlots> {
  public:
    static constexpr const wchar_t* kClassName =
        L"Windows.Devices.Bluetooth.Advertisement.BluetoothLEAdvertisementReceivedEventArgs";

    explicit Received(platform::AdvertisementReceivedEventArgs args) : args_(std::move(args)) {}

    HRESULT get_BluetoothAddress(UINT64* out) override {
        *out = args_.bluetoothAddress;
        return S_OK;
    }
    HRESULT get_Advertisement(advertising::IBluetoothLEAdvertisement** out) override {
        *out = nullptr;
        return guarded([&] { handOut(make<Advertisement>(args_), out); });
    }

  private:
    const platform::AdvertisementReceivedEventArgs args_;
};

struct WatcherSlots : advertising::IBluetoothLEAdvertisementWatcher {
    using Interface = advertising::IBluetoothLEAdvertisementWatcher;
    HRESULT get_MinSamplingInterval(INT64*) override { return E_NOTIMPL; }
    HRESULT get_MaxSamplingInterval(INT64*) override { return E_NOTIMPL; }
    HRESULT get_MinOutOfRangeTimeout(INT64*) override { return E_NOTIMPL; }
    HRESULT get_MaxOutOfRangeTimeout(INT64*) override { return E_NOTIMPL; }
    HRESULT get_Status(INT32*) override { return E_NOTIMPL; }
    HRESULT get_ScanningMode(advertising::BluetoothLEScanningMode*) override { return E_NOTIMPL; }
    HRESULT get_SignalStrengthFilter(IInspectable**) override { return E_NOTIMPL; }
    HRESULT put_SignalStrengthFilter(IInspectable*) override { return E_NOTIMPL; }
    HRESULT get_AdvertisementFilter(IInspectable**) override { return E_NOTIMPL; }
    HRESULT put_AdvertisementFilter(IInspectable*) override { return E_NOTIMPL; }
    HRESULT add_Stopped(IUnknown*, EventRegistrationToken*) override { return E_NOTIMPL; }
    HRESULT remove_Stopped(EventRegistrationToken) override { return E_NOTIMPL; }
};

class Watcher final : public Object<Watcher, WatcherSlots> {
  public:
    static constexpr const wchar_t* kClassName =
        L"Windows.Devices.Bluetooth.Advertisement.BluetoothLEAdvertisementWatcher";

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
            if (const auto sender = self()) {
                handler->Invoke(sender.Get(), args ? make<Received>(*args).Get() : nullptr);
            }
        };
        return guarded([&] { *out = registrations_.add(watcher_->onReceived(tell)); });
    }
    HRESULT remove_Received(EventRegistrationToken token) override {
        registrations_.remove(token);
        return S_OK;
    }

  private:
    const std::unique_ptr<platform::AdvertisementWatcher> watcher_ = platform::createAdvertisementWatcher();
    EventRegistrations registrations_;
};

class Factory final : public Object<Factory, IActivationFactory> {
  public:
    static constexpr const wchar_t* kClassName = L"BluetoothLEAdvertisementWatcher factory";

    HRESULT ActivateInstance(IInspectable** out) override {
        *out = nullptr;
        return guarded([&] { *out = make<Watcher>().Detach(); });
    }
};

}  // namespace

ComPtr<IActivationFactory> advertisementWatcherFactory() {
    return make<Factory>();
}

}  // namespace provider
