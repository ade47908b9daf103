#!/usr/bin/env bash
# install_test.sh BUILD_DIR: installs the build into a scratch prefix and uses it from there.
set -euo pipefail
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$1" --prefix "$prefix" >/dev/null
! type -P scdoc >/dev/null || [[ -s $prefix/share/man/man3/libdif.3.gz ]]
"$prefix"/bin/difctl --version # which finds its libraries by itself
"$(dirname "$0")/consumer_test.sh" "$prefix"
