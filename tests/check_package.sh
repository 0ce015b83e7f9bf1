#!/usr/bin/env bash
# Unpacks what tools/package made and checks that it runs from there. Needs the tests of the preset windows built.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
packages=$root/build/packages
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"

fail() {
    printf '%s\n' "$@"
    exit 1
}

# Without a radio the program ends by itself. The driver stands in drivers.db, so its warning shows that the file is found.
cat >scenario.json <<'END'
{ "radios": [], "drivers": [ { "compatible": [
  { "manufacturer": "Example Semiconductor", "date": "2020-05-01T00:00:00Z", "version": "2.0.7.1" } ] } ] }
END

# starts PROGRAM...: checks that it shows its version and its options, and ends.
starts() {
    local expected
    output=$(ZIQBLE_SCENARIO=scenario.json timeout 60 "$@" --help --cmdPipe "\\\\.\\pipe\\package-$$" 2>&1) ||
        fail "exit code $? of $*" "$output"
    for expected in "ZIQBLEConnect $version" "Display use information" "Goodbye!"; do
        [[ $output == *"$expected"* ]] || fail "not found in the output of $*: $expected" "$output"
    done
}

# simulates PROGRAM...: the same for the simulated program, which also has to find drivers.db.
simulates() {
    starts "$@"
    [[ $output == *"Get 2.1.0.4 or later."* ]] || fail "drivers.db is not found by $*" "$output"
}

# pipes ZIQBLE...: it starts the simulated program that lies beside it, and what is sent comes back.
pipes() {
    output=$(echo hello | timeout 60 "$@" pipe 00:1A:7D:DA:71:13 --start --sim --cmd-pipe "\\\\.\\pipe\\command-$$" \
        --dat-pipe "\\\\.\\pipe\\data-$$" 2>&1) || fail "exit code $? of $*" "$output"
    [[ $output == *hello*"6 bytes received"* ]] || fail "no echo through $*" "$output"
}

check_windows() {
    local program
    python3 -m zipfile -e "$packages/ZIQBLEConnect-$version-win64.zip" .
    cd "ZIQBLEConnect-$version-win64"
    ! grep -qv $'\r$' ./*.txt || fail "text files need the line ends of Windows"
    for program in ZIQBLEConnect*.exe; do
        strings -el "$program" | grep -A 1 -x ProductVersion | grep -qxF "$version" || fail "$program: no version"
        # The version record: its signature, the structure's version, then 1.0.4.0 as numbers.
        LC_ALL=C grep -qaP '\xbd\x04\xef\xfe\0\0\x01\0\0\0\x01\0\0\0\x04\0' "$program" || fail "$program: other numbers"
    done
    cd ..
    simulates "$root/tools/wine_run.sh" "ZIQBLEConnect-$version-win64/ZIQBLEConnect-sim.exe"
    pipes "$root/tools/wine_run.sh" "ZIQBLEConnect-$version-win64/ziqble.exe"
    # Wine's own library ends the program when the program looks for adapters.
    cp "$root/build/windows/tests/under_wine/bluetoothapis.dll" "ZIQBLEConnect-$version-win64"
    starts "$root/tools/wine_run.sh" "ZIQBLEConnect-$version-win64/ZIQBLEConnect.exe"
}

check_linux() {
    local deb=$1 link page warnings
    dpkg-deb -x "$deb" .
    simulates usr/bin/ZIQBLEConnect-sim
    # Without a system bus it ends by itself.
    DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nowhere starts usr/bin/ZIQBLEConnect
    ZIQBLE_BUILD=$PWD/usr/bin pytest-3 -q -p no:cacheprovider "$root/tests/behaviour/bridge_test.py" -k client_of_the_documents >&2
    for link in usr/bin/* usr/share/man/man1/*; do
        [[ -e $link ]] || fail "a link to nothing: $link"
    done
    for page in ZIQBLEConnect ziqble; do
        ! command -v man >/dev/null || warnings=$(man --warnings -l "usr/share/man/man1/$page.1.gz" 2>&1 >/dev/null)
        [[ -z ${warnings-} ]] || fail "$warnings"
    done
    pipes usr/bin/ziqble
    bash -c 'source usr/share/bash-completion/completions/ziqble; COMP_WORDS=(ziqble sc) COMP_CWORD=1; _ziqble
        [[ ${COMPREPLY[*]} == scan ]]' || fail "the completion does not work"
    check_unit ziqbleconnect.service ziqbleconnect.service
    check_unit ziqble-serve@.service "ziqble-serve@$(systemd-escape 00:1A:7D:DA:71:13 2>/dev/null).service"
}

# check_unit FILE UNIT: systemd understands the file under that name.
check_unit() {
    local complaints
    command -v systemd-analyze >/dev/null || return 0
    sed "s|/usr/bin|$folder/usr/bin|" "usr/lib/systemd/user/$1" >"$2"
    # It also complains about other units of the machine.
    complaints=$(XDG_RUNTIME_DIR=$folder systemd-analyze --user --man=no verify "$folder/$2" 2>&1 |
        grep ziqble) || return 0
    fail "$complaints"
}

debs=("$packages"/ziqbleconnect_*.deb)
version=${debs[0]#*/ziqbleconnect_}
version=${version%%_*}
check_linux "${debs[0]}"
check_windows
echo "packages of version $version: they run"
