#!/usr/bin/env bash
# install_test.sh BUILD_DIR: installs the build into a scratch prefix and uses it from outside the tree: README.md's first
# program through pkg-config and through CMake, and the installed tool.
set -euo pipefail
source "$(dirname "$0")/readme_program.sh"

buildDir=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install "$buildDir" --prefix "$prefix" >/dev/null
cd "$work"
readmeProgram >first.c

export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name dif.pc)")
read -ra flags <<<"$(pkg-config --cflags --libs dif_host dif)"
cc -std=c11 -Wall -Wextra -Wpedantic -Werror first.c "${flags[@]}" -o with_pkgconfig
expectReadmeOutput pkg-config env LD_LIBRARY_PATH="$(pkg-config --variable=libdir dif)" ./with_pkgconfig

expectCmakeConsumer "$prefix"

head -c 65536 /dev/urandom >disk.img
"$prefix"/bin/difctl protect disk.img disk.dif
"$prefix"/bin/difctl verify disk.dif
"$prefix"/bin/difctl strip disk.dif stripped.img
cmp disk.img stripped.img
echo "difctl: ok"
