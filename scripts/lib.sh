# What the scripts share: sourcing this goes to the root of the tree and stops the script at its first failed command.
# shellcheck shell=bash
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

say() { printf '\n== %s\n' "$*"; }

# Prints the comment at the head of the script.
usage() { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "scripts/$(basename "$0")"; }

# Installs those of the named Debian packages that are missing. With all of them there it contacts nobody.
installMissing() {
    local package missing=() asRoot=()
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
    done
    ((${#missing[@]})) || return 0
    say "Installing ${missing[*]}"
    ((EUID == 0)) || asRoot=(sudo)
    "${asRoot[@]}" apt-get update
    "${asRoot[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
}

# build PRESET [cmake --build ARGUMENT...]: builds into build/PRESET, after installing what that needs.
build() {
    local preset=$1
    shift
    installMissing g++ cmake ninja-build pkg-config libisal-dev libspdlog-dev libutfcpp-dev libcli11-dev nlohmann-json3-dev \
        libgtest-dev libgmock-dev libbenchmark-dev libedit-dev libnbd-dev nbdkit-plugin-dev
    say "Building $preset"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" "$@"
}
