#!/usr/bin/env bash
# Runs a Windows program under Wine: wine_run.sh PROGRAM [ARGUMENT...]
# In a prefix of the build's own, made at the first call, which says that it is Windows 10; another one of that name with
# ZIQBLE_WINE_PREFIX. No display is needed.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
export WINEPREFIX=$root/build/${ZIQBLE_WINE_PREFIX:-wine} WINEDEBUG=-all
# No offers to install what is not used here, no menu entries on the machine.
export WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d"
unset DISPLAY WAYLAND_DISPLAY

# Once in two thousand times a program would not start: its heap lies where Wine has to have a page of its own. Not so where
# addresses are the same every time, if the machine allows that.
wine=(wine)
! setarch -R true 2>/dev/null || wine=(setarch -R wine)

# What the prefix's registry has to hold: it is Windows 10, but an older one for a program of that name, and the classes of
# the Windows Runtime come from the simulated one, whether or not it has been built yet.
settings() {
    local class library=${root//\//\\\\}'\\build\\windows\\tests\\winrt_provider.dll'
    printf 'REGEDIT4\n\n[HKEY_CURRENT_USER\\Software\\Wine]\n"Version"="win10"\n\n'
    printf '[HKEY_CURRENT_USER\\Software\\Wine\\AppDefaults\\ZIQBLEConnect-older.exe]\n"Version"="win81"\n\n'
    for class in Devices.Bluetooth.Advertisement.BluetoothLEAdvertisementWatcher Devices.Bluetooth.BluetoothLEDevice \
        Devices.Enumeration.DeviceInformation Devices.Radios.Radio Storage.Streams.DataReader Storage.Streams.DataWriter; do
        printf '[HKEY_LOCAL_MACHINE\\Software\\Microsoft\\WindowsRuntime\\ActivatableClassId\\Windows.%s]\n' "$class"
        printf '"DllPath"="Z:%s"\n\n' "$library"
    done
}

# The server that made it goes: there its drivers wait for one another for most of a minute, and no service starts meanwhile.
make_prefix() {
    "${wine[@]}" wineboot --init && settings >"$WINEPREFIX/new.reg" &&
        "${wine[@]}" regedit /S "Z:$WINEPREFIX/new.reg" && wineserver -k && mv "$WINEPREFIX/new.reg" "$WINEPREFIX/settings.reg"
}

# Wine's server stays for a while: a program that starts just as the server of the one before it leaves finds none. It and
# the services are started by themselves, or they would hold the first program's output open for as long.
start_wine() {
    cmp -s "$WINEPREFIX/settings.reg" <(settings) || make_prefix
    ! wineserver -p60 || "${wine[@]}" wineboot
}

# Of several programs that start at once, one does it.
mkdir -p "$WINEPREFIX"
exec 9>"$WINEPREFIX/.lock"
flock 9
start_wine >"$WINEPREFIX.log" 2>&1 </dev/null 9>&- || { cat "$WINEPREFIX.log" >&2; exit 1; }
exec 9>&-
exec "${wine[@]}" "$@"
