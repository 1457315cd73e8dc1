#!/bin/sh
# Installs the build into a scratch prefix and builds an application against it twice: once
# through the CMake package, once through pkg-config. Both must print SHA-256("abc").
set -eu
build="$1"
source_dir="$(cd "$(dirname "$0")" && pwd)"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
prefix="$scratch/prefix"
expected="BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD"

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir="$(dirname "$(find "$prefix" -name libveltrix.so | head -n 1)")"
plugin_dir="$prefix/lib/secure"
test -f "$plugin_dir/libveltrix_openssl.so"

cmake -S "$source_dir" -B "$scratch/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$scratch/cmake" >/dev/null
got="$(LD_LIBRARY_PATH="$libdir" "$scratch/cmake/vxconsumer" "$plugin_dir")"
[ "$got" = "$expected" ] || { echo "CMake package consumer printed: $got"; exit 1; }

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 "$source_dir/consumer.cpp" -o "$scratch/pkgconsumer" \
    $(pkg-config --cflags --libs libveltrix)
got="$(LD_LIBRARY_PATH="$libdir" "$scratch/pkgconsumer" "$plugin_dir")"
[ "$got" = "$expected" ] || { echo "pkg-config consumer printed: $got"; exit 1; }
echo "install: CMake package and pkg-config consumers both work"
