// A stand-in for the system's library of this name, because the radio calls of Wine's own end the program.
// It finds the radios of the test's radio driver. Like the system's library it refuses wrong structure sizes.
#include <windows.h>

#include <bluetoothapis.h>

#include "tests/wine_devices/test_radio.h"

namespace {

HANDLE openRadio(ULONG index) {
    DWORD size = 0;
    const HANDLE radio = ::CreateFileW(L"\\\\.\\ZiqbleRadios", GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                       OPEN_EXISTING, 0, nullptr);
    if (::DeviceIoControl(radio, wine_devices::kSelectRadio, &index, sizeof index, nullptr, 0, &size,
                          nullptr))
        return radio;
    if (radio != INVALID_HANDLE_VALUE) ::CloseHandle(radio);
    ::SetLastError(ERROR_NO_MORE_ITEMS);
    return nullptr;
}

}  // namespace

// A search is a semaphore that counts the radios found. So a search that the program does not close shows as
// an open handle.
HBLUETOOTH_RADIO_FIND WINAPI BluetoothFindFirstRadio(BLUETOOTH_FIND_RADIO_PARAMS* parameters, HANDLE* radio) {
    if (!parameters || parameters->dwSize != sizeof *parameters) {
        ::SetLastError(ERROR_REVISION_MISMATCH);
        return nullptr;
    }
    *radio = openRadio(0);
    return *radio ? ::CreateSemaphoreW(nullptr, 1, MAXLONG, nullptr) : nullptr;
}

BOOL WINAPI BluetoothFindNextRadio(HBLUETOOTH_RADIO_FIND search, HANDLE* radio) {
    LONG index = 0;
    if (!::ReleaseSemaphore(search, 1, &index)) return FALSE;
    *radio = openRadio(static_cast<ULONG>(index));
    return *radio != nullptr;
}

BOOL WINAPI BluetoothFindRadioClose(HBLUETOOTH_RADIO_FIND search) {
    return ::CloseHandle(search);
}

DWORD WINAPI BluetoothGetRadioInfo(HANDLE radio, BLUETOOTH_RADIO_INFO* info) {
    if (info->dwSize != sizeof *info) return ERROR_REVISION_MISMATCH;
    DWORD size = 0;
    const BOOL done = ::DeviceIoControl(radio, wine_devices::kGetName, nullptr, 0, info->szName,
                                        sizeof info->szName, &size, nullptr);
    return done ? ERROR_SUCCESS : ::GetLastError();
}
