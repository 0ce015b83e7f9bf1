#include "platform/adapter.h"

#include <windows.h>

#include <bluetoothapis.h>

#include <memory>

namespace platform {

namespace {

// Control codes of the Bluetooth driver.
constexpr DWORD kGetLocalRadioInfo = 0x00410000;
constexpr DWORD kScanCommand = 0x0041118C;

static_assert(sizeof(BLUETOOTH_FIND_RADIO_PARAMS) == 4 && sizeof(BLUETOOTH_RADIO_INFO) == 520);

using RadioHandle = std::unique_ptr<void, decltype(&::CloseHandle)>;

class WindowsAdapter final : public Adapter {
  public:
    explicit WindowsAdapter(HANDLE radio) : radio_(radio, &::CloseHandle) {}

    SystemError name(std::wstring& out) const override {
        BLUETOOTH_RADIO_INFO info{};
        info.dwSize = sizeof info;
        const DWORD error = ::BluetoothGetRadioInfo(radio_.get(), &info);
        if (error == ERROR_SUCCESS) out = info.szName;
        return static_cast<SystemError>(error);
    }

    SystemError localRadioInfo(LocalRadioInfo& out) const override {
        return control(kGetLocalRadioInfo, {}, out);
    }

    SystemError scanCommand(std::span<const std::uint8_t> command, std::span<std::uint8_t> reply) override {
        return control(kScanCommand, command, reply);
    }

  private:
    SystemError control(DWORD code, std::span<const std::uint8_t> input,
                        std::span<std::uint8_t> output) const {
        DWORD returned = 0;
        // The driver only reads the input.
        const BOOL done = ::DeviceIoControl(radio_.get(), code, const_cast<std::uint8_t*>(input.data()),
                                            static_cast<DWORD>(input.size()), output.data(),
                                            static_cast<DWORD>(output.size()), &returned, nullptr);
        return done ? SystemError::none : lastSystemError();
    }

    const RadioHandle radio_;
};

}  // namespace

AdapterList findAdapters() {
    AdapterList list;
    BLUETOOTH_FIND_RADIO_PARAMS parameters{sizeof parameters};
    HANDLE radio = nullptr;
    const HBLUETOOTH_RADIO_FIND search = ::BluetoothFindFirstRadio(&parameters, &radio);
    if (!search) {
        list.error = lastSystemError();
        return list;
    }
    do {
        list.adapters.push_back(std::make_shared<WindowsAdapter>(radio));
    } while (::BluetoothFindNextRadio(search, &radio));
    ::BluetoothFindRadioClose(search);
    return list;
}

}  // namespace platform
