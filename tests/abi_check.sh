#!/bin/sh
# Checks the shared library's soname and that it exports only the documented interface.
set -eu
lib="$1"
soname=$(readelf -d "$lib" | sed -n 's/.*Library soname: \[\(.*\)\].*/\1/p')
if [ "$soname" != "libveltrix.so" ]; then
    echo "soname is '$soname', expected 'libveltrix.so'"
    exit 1
fi
stray=$(nm -DC --defined-only "$lib" | cut -d' ' -f3- |
    grep -vE '^((typeinfo name for|typeinfo for|vtable for) )?(veltrix|oxel|libuiTable)::' |
    grep -vxE 'vxGlobal|libveltrix_init' || true)
if [ -n "$stray" ]; then
    echo "symbols exported beyond the interface:"
    echo "$stray"
    exit 1
fi
for wanted in vxGlobal libveltrix_init 'veltrix::vxBase::DumpStackTrace' 'oxel::selectSet::doSelect' \
    'libuiTable::uiTable::Display'; do
    nm -DC --defined-only "$lib" | grep -q "$wanted" || { echo "missing export: $wanted"; exit 1; }
done
echo "abi: soname libveltrix.so, $(nm -D --defined-only "$lib" | wc -l) exported symbols, all in the interface"
