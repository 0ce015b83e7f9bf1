#!/usr/bin/env bash
# Runs a Windows program under Wine: wine_run.sh PROGRAM [ARGUMENT...]
# In a prefix of the build's own, made at the first call, which says that it is Windows 10. No display is needed.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
export WINEPREFIX=$root/build/wine WINEDEBUG=-all
# No offers to install what is not used here, no menu entries on the machine.
export WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d"
unset DISPLAY WAYLAND_DISPLAY

make_prefix() {
    wine wineboot --init >"$root/build/wine.log" 2>&1 </dev/null || { cat "$root/build/wine.log" >&2; return 1; }
    wine reg add 'HKCU\Software\Wine' /v Version /d win10 /f >>"$root/build/wine.log" 2>&1 </dev/null
    touch "$WINEPREFIX/ready"
}

if [[ ! -e $WINEPREFIX/ready ]]; then
    mkdir -p "$WINEPREFIX"
    # Of several tests that start at once, one makes the prefix.
    exec 9>"$WINEPREFIX/.lock"
    flock 9
    [[ -e $WINEPREFIX/ready ]] || make_prefix 9>&-
    exec 9>&-
fi
# Stays for a while: a program that starts just as the server of the one before it leaves finds none.
wineserver -p60 >/dev/null 2>&1 </dev/null || true
exec wine "$@"
