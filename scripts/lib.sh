# What the scripts share: sourcing this goes to the root of the tree and stops the script at its first failed command.
# shellcheck shell=bash
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

say() { printf '\n== %s\n' "$*"; }

# Shows a command as a shell takes it, then runs it.
run() {
    printf '\n$%s\n' "$(printf ' %q' "$@")"
    "$@"
}

# takes EXPECTED PATTERN ARGUMENT...: answers --help with the comment at the head of the script, and refuses arguments that,
# all together, are not of the pattern.
takes() {
    local script expected=$1 pattern=$2
    script=scripts/$(basename "$0")
    shift 2
    if [[ $* == --help ]]; then
        sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$script"
        exit
    fi
    [[ $* =~ ^($pattern)$ ]] || {
        echo "$script: got '$*', expected $expected or --help" >&2
        exit 2
    }
}

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

# build PRESET [--target TARGET...]: builds into build/PRESET, after installing what that needs: with targets, what the
# libraries and difctl do.
build() {
    local preset=$1 packages=(g++ cmake ninja-build pkg-config libisal-dev libspdlog-dev libutfcpp-dev libcli11-dev
        nlohmann-json3-dev libedit-dev libnbd-dev)
    shift
    (($#)) || packages+=(libgtest-dev libgmock-dev libbenchmark-dev nbdkit-plugin-dev)
    installMissing "${packages[@]}"
    say "Building $preset"
    cmake --preset "$preset" >/dev/null
    cmake --build --preset "$preset" "$@"
}
