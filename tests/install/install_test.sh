#!/bin/sh
# Installs the build BUILD_DIR into a scratch prefix, then builds the example client and server
# against that install (through the CMake package and through pkg-config) and runs a session
# with each build.
#
#   tests/install/install_test.sh BUILD_DIR
set -eu
[ $# -eq 1 ] || { echo "usage: $0 BUILD_DIR" >&2; exit 1; }
build="$1"
repo="$(cd "$(dirname "$0")/../.." && pwd)"
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT

cmake --install "$build" --prefix "$scratch/prefix" >"$scratch/install.log" 2>&1 ||
    { cat "$scratch/install.log" >&2; echo "install_test.sh: cmake --install $build failed" >&2; exit 1; }
"$repo/examples/build-and-run.sh" / "$scratch/prefix"
