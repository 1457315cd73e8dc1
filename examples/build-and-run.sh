#!/bin/sh
# Builds the example clients and servers against an installed libveltrix, once through its CMake
# package and once through pkg-config, and runs sessions between them on loopback for each build:
# the library's client and server, the session layer's server with both clients and a client
# holding the wrong secret, and the session layer's client against the library's server.
#
#   examples/build-and-run.sh ROOT PREFIX
#
# ROOT is the directory the install was put into: / for an installed system, or the DESTDIR of
# `DESTDIR=ROOT cmake --install ...` or of unpacked packages. PREFIX is the install prefix inside
# it (/usr, /usr/local, or the DIR of a plain `cmake --install --prefix DIR` with ROOT /).
# CXX chooses the compiler of both builds. Exits non-zero, saying why, on any failure.
set -eu

me="build-and-run.sh"
fail() {
    echo "$me: $*" >&2
    exit 1
}

# Prints a log file after a failure, so that the reason is in the test's output.
show() {
    echo "--- $1" >&2
    cat "$1" >&2 || true
    echo "---" >&2
}

[ $# -eq 2 ] || fail "usage: $me ROOT PREFIX (e.g. / /usr/local, or DESTDIR /usr)"
case "$2" in
/*) ;;
*) fail "PREFIX must be an absolute path: $2" ;;
esac
[ -d "$1" ] || fail "ROOT is not a directory: $1"
root="$(cd "$1" && pwd)"
base="${root%/}$2" # the prefix as it is on this machine
examples="$(cd "$(dirname "$0")" && pwd)"
[ -d "$base" ] || fail "no install under $base"
base="$(cd "$base" && pwd -P)"

# The library directory: lib/<multiarch> in a package for /usr, otherwise lib or lib64.
multiarch="$("${CXX:-c++}" -print-multiarch 2>/dev/null || true)"
libdir=""
for candidate in ${multiarch:+"$base/lib/$multiarch"} "$base/lib64" "$base/lib"; do
    if [ -e "$candidate/libveltrix.so" ]; then
        libdir="$candidate"
        break
    fi
done
[ -n "$libdir" ] || fail "no libveltrix.so in $base/lib${multiarch:+/$multiarch}, lib64 or lib"
[ -f "$libdir/cmake/veltrix/veltrixConfig.cmake" ] ||
    fail "no CMake package: $libdir/cmake/veltrix/veltrixConfig.cmake is missing"
[ -f "$libdir/pkgconfig/libveltrix.pc" ] ||
    fail "no pkg-config file: $libdir/pkgconfig/libveltrix.pc is missing"
[ -f "$libdir/pkgconfig/libveltrix-session.pc" ] ||
    fail "no pkg-config file: $libdir/pkgconfig/libveltrix-session.pc is missing"
plugin_dir="$base/lib/secure"
[ -f "$plugin_dir/libveltrix_openssl.so" ] ||
    fail "no plug-in: $plugin_dir/libveltrix_openssl.so is missing"

work="$(mktemp -d)"
server_pid=""
cleanup() {
    if [ -n "$server_pid" ]; then
        kill "$server_pid" 2>/dev/null || true
        wait "$server_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 1' HUP INT TERM

# The build through the CMake package. The package must be the one under ROOT, not another
# install that the default search also reaches.
if ! {
    cmake -S "$examples" -B "$work/find_package" -DCMAKE_PREFIX_PATH="$base" \
        -DVXEXAMPLE_WERROR=ON && cmake --build "$work/find_package"
} >"$work/find_package.log" 2>&1; then
    show "$work/find_package.log"
    fail "the find_package build failed"
fi
found="$(sed -n 's/^veltrix_DIR:PATH=//p' "$work/find_package/CMakeCache.txt")"
[ "$(cd "$found" && pwd -P)" = "$(cd "$libdir/cmake/veltrix" && pwd -P)" ] ||
    fail "find_package found the package in $found, not in $libdir/cmake/veltrix"

# The build through pkg-config. Only the install's own directory is searched. No sysroot: the
# .pc file computes its prefix from its own location, which already lies under ROOT.
mkdir "$work/pkg-config"
(
    unset PKG_CONFIG_PATH PKG_CONFIG_SYSROOT_DIR
    export PKG_CONFIG_LIBDIR="$libdir/pkgconfig"
    pc_libdir="$(pkg-config --variable=libdir libveltrix)"
    [ "$(cd "$pc_libdir" && pwd -P)" = "$(cd "$libdir" && pwd -P)" ] || {
        echo "libveltrix.pc gives libdir $pc_libdir, not $libdir"
        exit 1
    }
    make -C "$work/pkg-config" -f "$examples/Makefile" CXXFLAGS="-O2 -g -Werror"
) >"$work/pkg-config.log" 2>&1 || { show "$work/pkg-config.log"; fail "the pkg-config build failed"; }

# After a failed client: gives the server two seconds to fail in turn and print its trail, then
# ends it.
stop_server() {
    tries=0
    while [ "$tries" -lt 20 ] && kill -0 "$server_pid" 2>/dev/null; do
        tries=$((tries + 1))
        sleep 0.1
    done
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
    server_pid=""
}

# Starts server program $2 of build $1 (with the arguments after it) on a port the system picks,
# and sets $port once it listens.
start_server() {
    build="$1"
    program="$2"
    shift 2
    server_out="$work/$build-$program.out"
    : >"$server_out" # exists before the background shell opens it
    LD_LIBRARY_PATH="$libdir" timeout 60 "$work/$build/$program" "$@" >"$server_out" 2>&1 &
    server_pid=$!
    port=""
    waited=0
    while :; do
        port="$(sed -n 's/^listening on .*:\([0-9][0-9]*\) (.*$/\1/p' "$server_out")"
        [ -z "$port" ] || break
        if ! kill -0 "$server_pid" 2>/dev/null; then
            status=0
            wait "$server_pid" || status=$?
            server_pid=""
            show "$server_out"
            fail "$build: $program exited with status $status before listening"
        fi
        waited=$((waited + 1))
        [ "$waited" -le 300 ] || { show "$server_out"; fail "$build: $program is not listening after 30 s"; }
        sleep 0.1
    done
}

# Waits for the server to exit by itself, which must be with status 0.
server_finished() {
    status=0
    wait "$server_pid" || status=$?
    server_pid=""
    [ "$status" -eq 0 ] || { show "$server_out"; fail "$1: the server exited with status $status"; }
}

# Checks that client output $2 holds each message's reply, the message upper-cased.
check_replies() {
    for message in "hello from the example" "a second message" "Mixed Case, 3 words!"; do
        reply="$(printf '%s' "$message" | LC_ALL=C tr '[:lower:]' '[:upper:]')"
        grep -qxF "sent \"$message\", reply \"$reply\"" "$2" ||
            { show "$2"; fail "$1: no reply \"$reply\" to \"$message\""; }
    done
}

secret="$work/example.psk"
printf 'a secret both ends were given beforehand\n' >"$secret"
chmod 600 "$secret"

# The library's client and server: the server answers one client and exits once it disconnects.
run_session() {
    build="$1"
    bin="$work/$build"
    client_out="$work/$build-client.out"
    shift
    start_server "$build" vxexample-server --plugin-dir "$plugin_dir" --secret-file "$secret"
    if ! LD_LIBRARY_PATH="$libdir" timeout 60 "$bin/vxexample-client" --plugin-dir "$plugin_dir" \
        --secret-file "$secret" "$port" "$@" >"$client_out" 2>&1; then
        stop_server
        show "$client_out"
        show "$server_out"
        fail "$build: the client failed"
    fi
    server_finished "$build"
    check_replies "$build" "$client_out"
    grep -qxF "client disconnected; connections left: 0" "$server_out" ||
        { show "$server_out"; fail "$build: the server did not see the client disconnect"; }
    echo "$build build: $# messages answered, the server pruned the connection"
}

# The session layer's server with three clients: the library's, the session layer's, and one
# with the wrong secret, which fails alone. The session programs find the plug-in beside the
# installed library by themselves. Then the session layer's client against the library's server.
run_session_layer() {
    build="$1"
    bin="$work/$build"
    shift
    start_server "$build" vxexample-session-server "$secret" 0 3
    LD_LIBRARY_PATH="$libdir" timeout 60 "$bin/vxexample-client" --plugin-dir "$plugin_dir" \
        --secret-file "$secret" "$port" "$@" >"$work/$build-library-client.out" 2>&1 ||
        { stop_server; show "$work/$build-library-client.out"; show "$server_out"; fail "$build: the library's client failed against the session server"; }
    LD_LIBRARY_PATH="$libdir" timeout 60 "$bin/vxexample-session-client" "$secret" "$port" "$@" \
        >"$work/$build-session-client.out" 2>&1 ||
        { stop_server; show "$work/$build-session-client.out"; show "$server_out"; fail "$build: the session client failed"; }
    wrong="$work/wrong.psk"
    printf 'another secret\n' >"$wrong"
    chmod 600 "$wrong"
    if LD_LIBRARY_PATH="$libdir" timeout 60 "$bin/vxexample-session-client" "$wrong" "$port" \
        "never answered" >"$work/$build-wrong-client.out" 2>&1; then
        stop_server
        fail "$build: a client with the wrong secret was answered"
    fi
    grep -q "different secrets" "$work/$build-wrong-client.out" ||
        { stop_server; show "$work/$build-wrong-client.out"; fail "$build: the wrong secret was not named"; }
    server_finished "$build"
    check_replies "$build" "$work/$build-library-client.out"
    check_replies "$build" "$work/$build-session-client.out"
    [ "$(grep -c ": the client disconnected$" "$server_out")" -eq 2 ] &&
        grep -q "wrong secret or modes: " "$server_out" ||
        { show "$server_out"; fail "$build: the session server did not report each session's end"; }

    start_server "$build" vxexample-server --plugin-dir "$plugin_dir" --secret-file "$secret"
    LD_LIBRARY_PATH="$libdir" timeout 60 "$bin/vxexample-session-client" "$secret" "$port" "$@" \
        >"$work/$build-session-client2.out" 2>&1 ||
        { stop_server; show "$work/$build-session-client2.out"; show "$server_out"; fail "$build: the session client failed against the library's server"; }
    server_finished "$build"
    check_replies "$build" "$work/$build-session-client2.out"
    echo "$build build: the session server served both clients and refused the wrong secret alone; the session client talked to the library's server"
}

for build in find_package pkg-config; do
    run_session "$build" "hello from the example" "a second message" "Mixed Case, 3 words!"
    run_session_layer "$build" "hello from the example" "a second message" "Mixed Case, 3 words!"
done
echo "examples: find_package and pkg-config builds both ran their sessions"
