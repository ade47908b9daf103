#!/usr/bin/env bash
# consumer_test.sh PREFIX: uses what is installed at PREFIX from outside the tree: README.md's first program through
# pkg-config, CMake, other linkers and the static libraries, every header as C, difctl, its completion.
set -euo pipefail
tree=$(dirname "$(realpath "$0")")/..
prefix=$(realpath "$1")
libdir=$(dirname "$(find "$prefix" -name libdif.so)")
export LD_LIBRARY_PATH=$libdir PKG_CONFIG_PATH=$libdir/pkgconfig PATH=$prefix/bin:$PATH
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
fail() { echo "consumer_test.sh: $*" >&2 && exit 1; }

sed -n '/^```c$/,/^```$/{/^```$/q;/^```c$/!p}' "$tree/README.md" >first.c
sed -n '/^prints$/,/^[^ ]/{s/^    //p}' "$tree/README.md" >expected
compile=(cc -std=c11 -Wall -Wextra -Wpedantic -Werror)
read -ra flags <<<"$(pkg-config --cflags --libs dif_host)"
"${compile[@]}" first.c "${flags[@]}" -o with_pkgconfig
programs=(with_pkgconfig with_cmake static)
sed /difHost/d first.c >unaware.c # calls libdif alone
for linker in bfd gold lld; do
    if type -P ld.$linker >/dev/null; then
        "${compile[@]}" -fuse-ld=$linker -Wl,--as-needed first.c -I"$prefix/include" -L"$libdir" -ldif_host -o with_$linker
        "${compile[@]}" -fuse-ld=$linker -Wl,--as-needed unaware.c "${flags[@]}" -o unaware_with_$linker
        programs+=("with_$linker" "unaware_with_$linker")
    fi
done
"${compile[@]}" first.c -I"$prefix/include" -L"$libdir" -Wl,--start-group -l:libdif_host.a -l:libdif.a -Wl,--end-group \
    -lisal -lspdlog -lfmt -lstdc++ -lm -o static
cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(dif 1.0 REQUIRED)
add_executable(with_cmake first.c)
target_link_libraries(with_cmake PRIVATE dif::dif_host)
END
cmake -G Ninja -S . -B . -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build . >/dev/null
for program in "${programs[@]}"; do
    diff expected <(./"$program" 2>log) || fail "$program: the program does not print what README.md says"
done
read -ra flags <<<"$(pkg-config --cflags dif)"
(cd "$tree/include" && printf '%s\n' dif/*.h && cd ../platform && printf 'dif/platform/%s\n' *.h) | while read -r header; do
    "${compile[@]}" -fsyntax-only "${flags[@]}" -x c - <<<"#include <$header>
extern int notEmpty;"
done

[[ $(difctl --version) == "difctl $(pkg-config --modversion dif)" ]] || fail "difctl --version: $(difctl --version)"
head -c 65536 /dev/urandom >disk.img
difctl protect disk.img disk.dif
difctl strip disk.dif - | cmp disk.img

source "$prefix/share/bash-completion/completions/difctl"
completes() { # EXPECTED WORD...: completing the last of the words must answer EXPECTED
    local expected=$1
    COMP_WORDS=("${@:2}")
    COMP_CWORD=$(($# - 2))
    _difctl difctl || true
    [[ $(printf '%s\n' "${COMPREPLY[@]}" | sort) == "$(tr ' ' '\n' <<<"$expected" | sort)" ]] || fail "completion of '${*:2}': expected '$expected', got '${COMPREPLY[*]}'"
}
completes "info protect verify strip show inject relabel convert repair fold shell attach selftest" difctl ""
completes "disk.dif" difctl verify --metrics disk.d
completes "--first-lba" difctl verify --fi
completes "4160" difctl verify --block = 4
completes "disk.img disk.dif" difctl protect --crc t10 disk
echo "what is installed at $prefix: ok"
