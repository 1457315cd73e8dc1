#!/bin/sh
# Checks the shared library's soname and that it exports exactly its interface: the names listed
# in libveltrix.exports, demangled and without parameter lists, so the list is the same on every
# architecture. A change to the interface changes that file in the same commit.
#   abi_check.sh LIBRARY EXPORTS [NM]
set -eu
lib="$1"
expected="$2"
nm="${3:-nm}"
soname=$(readelf -d "$lib" | sed -n 's/.*Library soname: \[\(.*\)\].*/\1/p')
if [ "$soname" != "libveltrix.so" ]; then
    echo "soname is '$soname', expected 'libveltrix.so'"
    exit 1
fi
# Unoptimised builds also export the standard library's template functions that return one of
# our types ("veltrix::vxHistoryLine& std::vector<...>::emplace_back"): the version script's
# patterns see the return type first. They are the standard library's, not the interface.
symbols=$("$nm" -DC --defined-only "$lib" | cut -d' ' -f3- | sed -E '/^[^ (]+[&*]* std::/d')
if ! difference=$(printf '%s\n' "$symbols" | sed -E 's/\[abi:cxx11\]//g; s/\(.*$//' | sort -u |
    diff -u "$expected" -); then
    echo "the exports differ from $expected (+ exported beyond it, - missing):"
    printf '%s\n' "$difference" | sed 1,2d | grep '^[+-]'
    exit 1
fi
echo "abi: soname libveltrix.so, $(printf '%s\n' "$symbols" | wc -l) exported symbols," \
    "$(wc -l <"$expected") names, as listed"
