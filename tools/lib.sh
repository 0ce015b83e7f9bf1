# For the scripts beside it, which source it. It needs only bash and coreutils: a bare machine has nothing else at first.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
PATH=$PATH:/usr/sbin:/sbin # mke2fs is there, and users do not have it in their path

die() {
    printf 'error: %s\n' "$*" >&2
    exit 1
}

missing_packages() {
    local package
    for package; do
        [[ $(dpkg-query -W -f '${Status}' "$package" 2>/dev/null) == *'install ok installed'* ]] || printf '%s\n' "$package"
    done
}

# needs PACKAGE...: installs the packages that are missing.
needs() {
    if ! command -v apt-get >/dev/null; then
        echo "note: no apt-get here; these Debian packages or their like are needed: $*" >&2
        return
    fi
    local packages as_root=()
    mapfile -t packages < <(missing_packages "$@")
    ((${#packages[@]})) || return 0
    if ((EUID != 0)); then
        command -v sudo >/dev/null || die "no sudo here; as root run: apt-get install ${packages[*]}"
        as_root=(sudo)
    fi

    echo "Installing ${packages[*]} ..."
    local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -o Dpkg::Use-Pty=0)
    local log
    log=$(mktemp)
    if ! "${apt[@]}" install -y --no-install-recommends "${packages[@]}" >"$log" 2>&1 </dev/null; then
        # The usual reason for a failure is that the package lists are missing or out of date.
        { "${apt[@]}" update && "${apt[@]}" install -y --no-install-recommends "${packages[@]}"; } >"$log" 2>&1 </dev/null ||
            { cat "$log" >&2; rm -f "$log"; die "apt-get could not install ${packages[*]}"; }
    fi
    rm -f "$log"
}

build_packages=(g++ cmake ninja-build nlohmann-json3-dev libasio-dev libcli11-dev)
windows_packages=(g++-mingw-w64-x86-64-posix wine64-tools libwine-dev)
jobs=$(nproc)
command -v ccache >/dev/null && export CMAKE_CXX_COMPILER_LAUNCHER=ccache

# build PRESET [TARGET...]: configures and builds; prints only what went wrong.
build() {
    local preset=$1 log
    shift
    mkdir -p build
    log=build/$preset.log
    { cmake --preset "$preset" && cmake --build --preset "$preset" -j "$jobs" ${*:+--target "$@"}; } >"$log" 2>&1 </dev/null ||
        { cat "$log" >&2; die "building preset $preset failed (log: $log)"; }
}
