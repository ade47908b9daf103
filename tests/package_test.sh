#!/usr/bin/env bash
# package_test.sh DIRECTORY: looks at the packages of DIRECTORY and uses what they hold from a scratch root.
set -euo pipefail
packages=$(realpath "$1")
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
fail() { echo "package_test.sh: $*" >&2 && exit 1; }

for package in "$packages"/*deb; do
    dpkg-deb -x "$package" "$root"
    dpkg-deb -I "$package" md5sums | (cd "$root" && md5sum --check --quiet) || fail "$package: holds other files than it says"
done

# Packages depend on what their files are linked with, and the development files on exactly their libraries.
while read -r name depends; do
    package=$(echo "$packages/$name"_*.deb)
    version=$(dpkg-deb -f "$package" Version)
    depends=${depends//NBDKIT/$(nbdkit --version | cut -d' ' -f2)}
    depends=${depends//UPSTREAM/${version%-*}}
    for depend in ${depends//VERSION/$version}; do
        [[ ",$(dpkg-deb -f "$package" Depends | tr -d ' ')," == *",$depend"[,\(]* ]] ||
            fail "$name: does not depend on $depend"
    done
    for document in copyright changelog.gz changelog.Debian.gz; do
        [[ -s $root/usr/share/doc/$name/$document ]] || fail "$name: has no $document"
    done
done <<'END'
libdif1 libc6
libdif-host1 libdif1(>=UPSTREAM) libisal2 libstdc++6
libdif-dev libdif1(=VERSION) libdif-host1(=VERSION)
dif-tools libdif1(>=UPSTREAM) libdif-host1(>=UPSTREAM) libc6
nbdkit-dif-filter nbdkit(>=NBDKIT) nbdkit(<<NBDKIT.~) libisal2 libc6
END
[[ $(dpkg-deb -f "$packages"/libdif1_*.deb Depends) != *,* ]] || fail "libdif1: depends on more than libc6"
for name in libdif1 libdif-host1; do
    package=$(echo "$packages/$name"_*.deb)
    [[ $(dpkg-deb -I "$package" triggers) == *ldconfig* ]] || fail "$name: has no ldconfig trigger"
    [[ $(dpkg-deb -I "$package" shlibs) == *" $name (>= $(dpkg-deb -f "$package" Version))" ]] || fail "$name: shlibs"
    [[ -s $(echo "$packages/$name"-dbgsym_*) ]] || fail "$name: has no debug symbols"
done
libdir=$root/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
for file in "$libdir"/libdif.so.1 "$libdir"/libdif_host.so.1 "$root"/usr/bin/difctl "$libdir"/nbdkit/filters/nbdkit-dif-filter.so; do
    ! readelf -SW "$file" | grep -q '\.symtab' || fail "$file: is not stripped"
    ! readelf -d "$file" | grep -qE 'RPATH|RUNPATH' || fail "$file: looks for libraries in a place of its own"
done
[[ $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs dif) != *-[IL]* ]] || fail "dif.pc: names the system's directories"
PKG_CONFIG_SYSROOT_DIR=$root "$(dirname "$0")/consumer_test.sh" "$root/usr"

# The pages render, and difctl's has a section for every command, with the options that the command has.
cd "$root"
for page in man1/difctl.1 man1/nbdkit-dif-filter.1 man3/libdif.3; do
    MANWIDTH=200 man -l --warnings=all "usr/share/man/$page.gz" >"$(basename $page)" 2>warnings
    [[ -s $(basename $page) && ! -s warnings ]] || fail "$page: does not render: $(cat warnings)"
done
export LD_LIBRARY_PATH=$libdir
options() { grep -oE -- '--[a-z-]+' | grep -vxE -e '--(help|progress|quiet|verbose)' | sort -u; }
for command in info protect verify strip show inject relabel convert repair fold shell attach selftest; do
    diff <(sed -nE "/^   $command\$/,/^ {0,3}[^ ]/{/^ {7}-/p}" difctl.1 | options) \
        <(usr/bin/difctl $command --help | sed -nE 's/^  (-[^ ]*).*/\1/p' | options) ||
        fail "difctl(1): < has other options for $command than > its --help"
done
diff <(sed -nE 's/^ {7}(dif-[a-z]+)=.*/\1/p' nbdkit-dif-filter.1 | sort -u) \
    <(nbdkit --filter="$libdir"/nbdkit/filters/nbdkit-dif-filter.so null --help | sed -nE 's/^(dif-[a-z]+)=.*/\1/p' | sort) ||
    fail "nbdkit-dif-filter(1): < has other parameters than > the filter"
echo "manual pages: ok"
