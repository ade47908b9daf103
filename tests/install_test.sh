#!/usr/bin/env bash
# install_test.sh BUILD_DIR: installs the build into a scratch prefix and uses it from outside the tree: a C program
# through pkg-config and through CMake, and the installed tool.
set -euo pipefail

buildDir=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install "$buildDir" --prefix "$prefix" >/dev/null
cd "$work"

cat >consumer.c <<'END'
#include <dif/dif.h>
#include <dif/platform/hostlog.h>
#include <dif_host.h>
#include <stdio.h>

int main(void) {
    static uint8_t blocks[4 * 520];
    const VerifyPointDesc point = {1, "CONSUMER"};
    uint32_t result = 0, failed = 0;
    DifOpParam op = {DIF_DATA_520, DIF_INSERT_CRC | DIF_INSERT_LBA, 100, NULL};
    DifCheckParam check = {DIF_DATA_520, DIF_CHECK_CRC | DIF_CHECK_LBA, DIF_VERIFY_LEVEL_MAJOR, DIF_VERIFY_LEVEL_MAJOR,
                           DIF_MID_CACHE, 1, 100, &result, NULL, &failed};

    difHostSetLogLevel(DIF_HOST_LOG_ERROR);
    difModuleInit();
    difRegistVerifyPoint(DIF_MID_CACHE, &point, 1, __func__, __LINE__);
    blocks[7] = 1;
    insertDif(blocks, 4, &op);
    const uint32_t intact = checkDif(blocks, 4, &check, __func__, __LINE__);
    blocks[3 * 520] ^= 1;
    const uint32_t spoiled = checkDif(blocks, 4, &check, __func__, __LINE__);
    printf("%#x %#x %u\n", intact, spoiled, failed);
    difModuleExit();
    return 0;
}
END
expected="0 0x80007d00 3"

# expect WHAT COMMAND...: the command must print what the consumer prints over a library that works.
expect() {
    local what=$1 output
    shift
    output=$("$@")
    [[ $output == "$expected" ]] || { echo "$what: expected '$expected', got '$output'" >&2; exit 1; }
    echo "$what: ok"
}

export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name dif.pc)")
read -ra flags <<<"$(pkg-config --cflags --libs dif_host dif)"
cc -std=c11 -Wall -Wextra -Wpedantic -Werror consumer.c "${flags[@]}" -o with_pkgconfig
expect pkg-config env LD_LIBRARY_PATH="$(pkg-config --variable=libdir dif)" ./with_pkgconfig

cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(dif 1.0 REQUIRED)
add_executable(with_cmake consumer.c)
target_link_libraries(with_cmake PRIVATE dif::dif_host dif::dif)
END
cmake -G Ninja -S . -B consumer -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build consumer >/dev/null
expect find_package consumer/with_cmake

head -c 65536 /dev/urandom >disk.img
"$prefix"/bin/difctl protect disk.img disk.dif
"$prefix"/bin/difctl verify disk.dif
"$prefix"/bin/difctl strip disk.dif stripped.img
cmp disk.img stripped.img
echo "difctl: ok"
