#!/usr/bin/env bash
# Checks that a program imports DLLs of Windows only, so that it runs on a machine without any other software:
# check_imports.sh OBJDUMP PROGRAM | --self-test
set -euo pipefail

windows='advapi32|bluetoothapis|bthprops\.cpl|combase|kernel32|msvcrt|mswsock|ole32|oleaut32|setupapi|shell32|user32|ws2_32|api-ms-win-[a-z0-9-]+'

check() {
    local imported foreign
    imported=$("$1" -p "$2" | sed -n 's/.*DLL Name: *\([^[:space:]]*\).*/\1/p')
    [[ -n $imported ]] || { echo "no imports found in $2"; return 1; }
    foreign=$(grep -Eivx "($windows)(\.dll)?" <<<"$imported") || return 0
    printf '%s imports DLLs that are not part of Windows:\n%s\n' "$2" "$foreign"
    return 1
}

# Checks made-up programs, which are the names of what they import.
self_test() {
    local program
    fake_objdump() { printf '\tDLL Name: %s\n' $2; }
    check fake_objdump "KERNEL32.dll msvcrt.dll" || { echo "a good program was refused"; return 1; }
    for program in "KERNEL32.dll "{libstdc++-6,libgcc_s_seh-1,libwinpthread-1,mykernel32}.dll ""; do
        ! check fake_objdump "$program" >/dev/null || { echo "accepted: imports of '$program'"; return 1; }
    done
}

case "$#:${1-}" in
    1:--self-test) self_test ;;
    2:*) check "$@" ;;
    *) echo "usage: check_imports.sh OBJDUMP PROGRAM | --self-test" >&2; exit 2 ;;
esac
