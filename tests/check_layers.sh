#!/usr/bin/env bash
# Checks who may include whom: check_layers.sh ROOT | --self-test
#   blescanner/                         the seam (platform/NAME.h), itself, the two libraries, the standard library
#   platform/ itself                    itself and the standard library
#   platform/host, platform/bluetooth   never blescanner/
# The first two are the same on every host: no header of a host, no conditional compilation.
set -euo pipefail
shopt -s globstar nullglob

include='^[[:space:]]*#[[:space:]]*include[[:space:]]*'
standard='<[a-z_0-9]+>'
bad=0

# complain WHAT LINES: reports lines, if there are any.
complain() {
    [[ -n $2 ]] || return 0
    printf '%s:\n%s\n' "$1" "$2"
    bad=1
}

# only ALLOWED FILE...: no include but the allowed ones, no #if.
only() {
    local allowed=$1
    shift
    (($#)) || return 0
    complain "not to be included here" "$(grep -EnH "$include" "$@" | grep -Ev "include[[:space:]]*($allowed)")"
    complain "conditional compilation" "$(grep -EnH '^[[:space:]]*#[[:space:]]*(if|ifdef|ifndef|elif)\b' "$@")"
}

check() {
    cd "$1"
    local program=(blescanner/**/*.{h,cpp}) seam=(platform/*.{h,cpp}) backends=(platform/{host,bluetooth}/**/*.{h,cpp})
    ((${#program[@]} && ${#seam[@]})) || { echo "no sources under $1"; return 1; }
    only "$standard|<(loguru|popl)\.hpp>|\"(platform/|blescanner/)?[a-z_0-9]+\.h\"" "${program[@]}"
    only "$standard|\"(platform/)?[a-z_0-9]+\.h\"" "${seam[@]}"
    ((${#backends[@]} == 0)) || complain "a back end includes the program" "$(grep -EnH "$include.*blescanner" "${backends[@]}")"
    return $bad
}

# A check that cannot fail is none: every offence is found in a tree that is good but for it.
self_test() {
    local result=0 file offence
    root=$(mktemp -d)
    trap 'rm -rf "$root"' EXIT
    mkdir -p "$root"/blescanner "$root"/platform/host/posix
    plant() {
        printf '#pragma once\n#include <vector>\n#include "platform/event.h"\n' >"$root/blescanner/unit.cpp"
        printf '#pragma once\n#include <string>\n' >"$root/platform/event.h"
        printf '#include <unistd.h>\n#ifdef __linux__\n#endif\n#include "platform/event.h"\n' >"$root/platform/host/posix/event.cpp"
    }
    plant
    "$0" "$root" || { echo "a good tree was refused"; result=1; }
    while read -r file offence; do
        plant
        echo "$offence" >>"$root/$file"
        ! "$0" "$root" >/dev/null || { echo "not found in $file: $offence"; result=1; }
    done <<'END'
blescanner/unit.cpp #include "platform/host/posix/socket.h"
blescanner/unit.cpp #include "platform/bluetooth/sim/world.h"
blescanner/unit.cpp # include <unistd.h>
blescanner/unit.cpp #include <sys/socket.h>
blescanner/unit.cpp #include <windows.h>
blescanner/unit.cpp #ifdef _WIN32
blescanner/unit.cpp #if defined(__linux__)
platform/event.h #include <poll.h>
platform/event.h #include "blescanner/lecomm.h"
platform/event.h #ifndef EVENT_H
platform/host/posix/event.cpp #include "blescanner/lecomm.h"
platform/host/posix/event.cpp #include "../../../blescanner/lecomm.h"
END
    return $result
}

case "${1-}" in
    --self-test) self_test ;;
    '') echo "usage: check_layers.sh ROOT | --self-test" >&2; exit 2 ;;
    *) check "$1" ;;
esac
