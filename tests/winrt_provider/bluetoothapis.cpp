// Stands in for bluetoothapis.dll: a machine whose Bluetooth driver shows no adapter. Wine's own library ends
// the process when it is asked.
#include <windows.h>

#include <bluetoothapis.h>

HBLUETOOTH_RADIO_FIND WINAPI BluetoothFindFirstRadio(BLUETOOTH_FIND_RADIO_PARAMS*, HANDLE*) {
    ::SetLastError(ERROR_NO_MORE_ITEMS);
    return nullptr;
}

BOOL WINAPI BluetoothFindNextRadio(HBLUETOOTH_RADIO_FIND, HANDLE*) {
    ::SetLastError(ERROR_NO_MORE_ITEMS);
    return FALSE;
}

BOOL WINAPI BluetoothFindRadioClose(HBLUETOOTH_RADIO_FIND) {
    return TRUE;
}

DWORD WINAPI BluetoothGetRadioInfo(HANDLE, BLUETOOTH_RADIO_INFO*) {
    return ERROR_NOT_FOUND;
}
