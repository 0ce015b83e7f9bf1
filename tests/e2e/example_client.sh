#!/usr/bin/env bash
# Runs the client from the documents against the program: example_client.sh PROGRAM ROOT
set -euo pipefail
program=$1
root=$2

export XDG_RUNTIME_DIR
XDG_RUNTIME_DIR=$(mktemp -d)
unset ZIQBLE_SCENARIO
"$program" >"$XDG_RUNTIME_DIR/log" &
running=$!
trap 'kill "$running" 2>/dev/null; wait "$running" || true; rm -rf "$XDG_RUNTIME_DIR"' EXIT
for ((tries = 0; tries < 500; tries++)); do
    [[ -S $XDG_RUNTIME_DIR/ZIQBLESh ]] && break
    sleep 0.02
done

answer=$(timeout 30 python3 "$root/docs/example_client.py")
[[ $answer == $'OK\nCONNECT TIO\nb\'hello\'\nOK' ]] || { echo "unexpected output: $answer"; exit 1; }
[[ $(<"$root/README.md") == *"$(<"$root/docs/example_client.py")"* ]] || { echo "the README shows another client"; exit 1; }
