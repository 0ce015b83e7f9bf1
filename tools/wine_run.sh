#!/usr/bin/env bash
# Runs a Windows program under Wine: wine_run.sh PROGRAM [ARGUMENT...]
# wine_run.sh --end ends Wine's servers and the programs that still run under them.
# It runs in a Wine prefix in the folder build, which is made at the first call and set to Windows 10. No display is needed.
# ZIQBLE_WINE_PREFIX gives a prefix of that name, and so a server of Wine of its own: under the load of all rigs at once Wine 8's
# server crashes now and then. Prefixes are copies of one, because making one takes long.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
template=$root/build/wine-template
export WINEPREFIX=$root/build/wine${ZIQBLE_WINE_PREFIX:+-$ZIQBLE_WINE_PREFIX} WINEDEBUG=-all
# Keeps Wine from offering to install other software, and from making menu entries on the machine.
export WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d"
unset DISPLAY WAYLAND_DISPLAY

if [[ ${1-} == --end ]]; then
    for folder in "$root"/build/wine*/; do
        WINEPREFIX=$folder wineserver -k 2>/dev/null || true # if it runs
    done
    exit
fi

# With random addresses one program in two thousand does not start, because its heap lies where Wine needs a page of its own.
# setarch -R gives the same addresses every time, if the machine allows it.
wine=(wine)
! setarch -R true 2>/dev/null || wine=(setarch -R wine)

# Prints what the prefix's registry has to contain: the version is Windows 10, but Windows 8.1 for ZIQBLEConnect-older.exe; and the
# classes of the Windows Runtime come from the simulated runtime, which need not be built yet.
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

up_to_date() {
    cmp -s "$1/settings.reg" <(settings)
}

# Ends Wine's server afterwards, so that the prefix can be copied.
make_template() (
    export WINEPREFIX=$template
    "${wine[@]}" wineboot --init && settings >"$template/new.reg" &&
        "${wine[@]}" regedit /S "Z:$template/new.reg" && wineserver -k && mv "$template/new.reg" "$template/settings.reg"
)

make_prefix() {
    mkdir -p "$template"
    exec 8>"$template.lock"
    flock 8
    up_to_date "$template" || make_template 8>&- || return
    exec 8>&-
    wineserver -k || true # if it runs
    rm -rf "$WINEPREFIX"
    cp -a "$template" "$WINEPREFIX"
}

# Starts Wine's server and its services, if they do not run, and lets them stay for 60 s: a program that starts just when the
# server ends would find none. They are not left to the first program, because they would keep its output open.
start_wine() {
    up_to_date "$WINEPREFIX" || make_prefix || return
    ! wineserver -p60 || "${wine[@]}" wineboot
}

# When several programs start at once, one of them does this and the others wait.
mkdir -p "$root/build"
exec 9>"$WINEPREFIX.lock"
flock 9
start_wine >"$WINEPREFIX.log" 2>&1 </dev/null 9>&- || { cat "$WINEPREFIX.log" >&2; exit 1; }
exec 9>&-
exec "${wine[@]}" "$@"
