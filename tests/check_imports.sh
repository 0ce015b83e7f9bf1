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

# Checks made-up lists of imports; fake_objdump prints a file as it is.
self_test() {
    local file result=0 foreign
    file=$(mktemp)
    printf '\tDLL Name: KERNEL32.dll\n\tDLL Name: msvcrt.dll\n' >"$file"
    fake_objdump() { cat "$2"; }
    check fake_objdump "$file" || { echo "a good program was refused"; result=1; }
    for foreign in libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll mykernel32.dll; do
        printf '\tDLL Name: KERNEL32.dll\n\tDLL Name: %s\n' "$foreign" >"$file"
        ! check fake_objdump "$file" >/dev/null || { echo "not found: $foreign"; result=1; }
    done
    : >"$file"
    ! check fake_objdump "$file" >/dev/null || { echo "a file without imports was accepted"; result=1; }
    rm -f "$file"
    return $result
}

case "$#:${1-}" in
    1:--self-test) self_test ;;
    2:*) check "$@" ;;
    *) echo "usage: check_imports.sh OBJDUMP PROGRAM | --self-test" >&2; exit 2 ;;
esac
