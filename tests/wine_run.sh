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

# The server that made it goes: there its drivers wait for one another for most of a minute, and no service starts meanwhile.
make_prefix() {
    wine wineboot --init && wine reg add 'HKCU\Software\Wine' /v Version /d win10 /f && wineserver -k &&
        touch "$WINEPREFIX/ready"
}

# Wine's server stays for a while: a program that starts just as the server of the one before it leaves finds none. It and
# the services are started by themselves, or they would hold the first program's output open for as long.
start_wine() {
    [[ -e $WINEPREFIX/ready ]] || make_prefix
    ! wineserver -p60 || wine wineboot
}

# Of several programs that start at once, one does it.
mkdir -p "$WINEPREFIX"
exec 9>"$WINEPREFIX/.lock"
flock 9
start_wine >"$WINEPREFIX.log" 2>&1 </dev/null 9>&- || { cat "$WINEPREFIX.log" >&2; exit 1; }
exec 9>&-
exec wine "$@"
