#!/usr/bin/env bash
# package_test.sh DIRECTORY: unpacks the packages of DIRECTORY into a scratch root and uses what is there: README.md's
# first program through plain cc, pkg-config and CMake, every header, difctl, the manual pages, the completion.
set -euo pipefail
source "$(dirname "$0")/readme_program.sh"

packages=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

fail() {
    echo "package_test.sh: $*" >&2
    exit 1
}

# The libraries' package depends on what they are linked with, the others on exactly its version.
while read -r name depends; do
    package=$(echo "$packages/$name"_*.deb)
    version=$(dpkg-deb -f "$package" Version)
    for depend in ${depends//VERSION/$version}; do
        [[ ",$(dpkg-deb -f "$package" Depends | tr -d ' ')," == *",$depend"[,\(]* ]] ||
            fail "$name: does not depend on $depend"
    done
    dpkg-deb -x "$package" root
    for document in copyright changelog.gz changelog.Debian.gz; do
        [[ -s root/usr/share/doc/$name/$document ]] || fail "$name: has no $document"
    done
done <<'END'
libdif1 libc6 libisal2 libstdc++6
libdif-dev libdif1(=VERSION)
dif-tools libdif1(=VERSION) libc6
END
[[ $(dpkg-deb -I "$packages"/libdif1_*.deb triggers) == *ldconfig* ]] || fail "libdif1: has no ldconfig trigger"
libdir=$work/root/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
for file in "$libdir"/libdif.so.1 "$libdir"/libdif_host.so.1 root/usr/bin/difctl; do
    ! readelf -SW "$file" | grep -q '\.symtab' || fail "$file: is not stripped"
    ! readelf -d "$file" | grep -qE 'RPATH|RUNPATH' || fail "$file: looks for libraries in a place of its own"
done
echo "contents: ok"

export LD_LIBRARY_PATH=$libdir PATH=$work/root/usr/bin:$PATH
readmeProgram >first.c
compile=(cc -std=c11 -Wall -Wextra -Wpedantic -Werror)
"${compile[@]}" first.c -I root/usr/include -L "$libdir" -ldif_host -ldif -o first
expectReadmeOutput "plain cc" ./first
read -ra flags <<<"$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs dif_host dif)"
"${compile[@]}" first.c "${flags[@]}" -o first_pkgconfig
expectReadmeOutput pkg-config ./first_pkgconfig
expectCmakeConsumer "$work/root/usr"
find root/usr/include -name '*.h' -printf '%P\n' | while read -r header; do
    "${compile[@]}" -fsyntax-only -I root/usr/include -x c - <<<"#include <$header>
extern int notEmpty;"
done
echo "headers: ok"

upstream=$(dpkg-deb -f "$packages"/dif-tools_*.deb Version)
[[ $(difctl --version) == "difctl ${upstream%-*}" ]] || fail "difctl --version: $(difctl --version)"
head -c 65536 /dev/urandom >disk.img
difctl protect disk.img disk.dif
difctl verify disk.dif
printf '\xff\xff' | dd of=disk.dif bs=1 seek=512 conv=notrunc status=none
if difctl verify disk.dif; then
    fail "difctl verify: passes a wrong guard"
fi
echo "difctl: ok"

# The pages render, and difctl's has a section for every command, with the options that the command has.
for page in man1/difctl.1 man3/libdif.3; do
    MANWIDTH=200 man -l --warnings=all "root/usr/share/man/$page.gz" >"$(basename $page)" 2>warnings
    [[ -s $(basename $page) && ! -s warnings ]] || fail "$page: does not render: $(cat warnings)"
done
mapfile -t commands < <(difctl --help | sed -nE '1,/^Subcommands:/d; s/^  ([a-z]+) .*/\1/p; /^$/q')
((${#commands[@]} > 2)) || fail "difctl --help: names no commands"
for command in "${commands[@]}"; do
    diff <(sed -nE "/^   $command\$/,/^ {0,3}[^ ]/{/^ {7}-/p}" difctl.1 | grep -oE -- '--[a-z-]+' | sort -u) \
        <(difctl "$command" --help | sed -nE 's/^  (-[^ ]*).*/\1/p' | grep -oE -- '--[a-z-]+' | grep -vx -e --help | sort -u) ||
        fail "difctl(1): < has other options for $command than > its --help"
done
echo "manual pages: ok"

source root/usr/share/bash-completion/completions/difctl
# completes EXPECTED WORD...: completing the last of the words must answer EXPECTED.
completes() {
    local expected=$1
    shift
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    _difctl difctl || true
    [[ ${COMPREPLY[*]} == "$expected" ]] || fail "completion of '$*': expected '$expected', got '${COMPREPLY[*]}'"
}
completes "${commands[*]}" difctl ""
completes "strip" difctl -v str
completes "--block" difctl verify --bl
completes "520 4160" difctl verify --block ""
completes "4160" difctl verify --block = 4
completes "" difctl verify --lba ""
completes "disk.img disk.dif" difctl protect --crc t10 disk
echo "completion: ok"
