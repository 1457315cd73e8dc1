#!/usr/bin/env bash
# Checks the Debian packages that cpack made in DIR for the architecture ARCH: each package's
# name, architecture and dependencies, the files it holds with their owners and modes, and that
# every binary in it is stripped and built for ARCH. For the build machine's own architecture it
# then installs them into a scratch root with dpkg, checks that their dependencies resolve on this
# system, verifies the service unit, runs the installed program and builds and runs the examples
# against the installed copy.
#   packaging/check-packages.sh DIR ARCH
set -euo pipefail
dir=$(cd "$1" && pwd)
cd "$(dirname "$0")/.."
arch=$2
triplet=$(dpkg-architecture -a "$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail() {
    echo "packages ($arch): $*" >&2
    exit 1
}

# The one .deb of package $1 for this architecture.
deb() {
    local found=("$dir/$1"_*_"$arch".deb)
    [ -f "${found[0]}" ] && [ ${#found[@]} -eq 1 ] || fail "expected one $1 package in $dir"
    echo "${found[0]}"
}

# Every item of the package's Depends must be there: "libveltrix (= 2.0-1)", "libssl3 (>= ...".
expect_depends() {
    local package=$1 depends
    shift
    depends=$(dpkg-deb -f "$(deb "$package")" Depends)
    for wanted in "$@"; do
        grep -qE "(^|, )$wanted" <<<"$depends" || fail "$package does not depend on $wanted: $depends"
    done
}

# The package's files (not directories) are exactly the listed ones, patterns allowed; every entry
# is root's; directories and programs 0755, everything else 0644.
expect_files() {
    local package=$1 listing entry mode owner path
    shift
    listing=$(dpkg-deb --contents "$(deb "$package")")
    while read -r mode owner _ _ _ path; do
        [ "$owner" = root/root ] || fail "$package: $path belongs to $owner"
        case "$mode:$path" in
        d*) [ "$mode" = drwxr-xr-x ] || fail "$package: directory $path has mode $mode" ;;
        *:./usr/bin/*) [ "$mode" = -rwxr-xr-x ] || fail "$package: program $path has mode $mode" ;;
        *) [ "$mode" = -rw-r--r-- ] || fail "$package: $path has mode $mode" ;;
        esac
        [ "${mode:0:1}" = d ] && continue
        local known=0
        for entry in "$@"; do
            # shellcheck disable=SC2053 # the entries are patterns
            [[ $path == ./$entry ]] && known=1
        done
        [ $known = 1 ] || fail "$package holds $path, which it should not"
    done <<<"$listing"
    for entry in "$@"; do
        grep -qE " \./${entry//\*/[^ ]*}$" <<<"$listing" || fail "$package lacks $entry"
    done
}

version=$(dpkg-deb -f "$(deb libveltrix)" Version)
exact="\(= ${version//./\\.}\)"
for package in libveltrix libveltrix-openssl libveltrix-dev veltrix; do
    [ "$(dpkg-deb -f "$(deb "$package")" Architecture)" = "$arch" ] || fail "$package is not for $arch"
    [ "$(dpkg-deb -f "$(deb "$package")" Version)" = "$version" ] || fail "$package is not at $version"
done
expect_depends libveltrix 'libc6 ' 'libstdc\+\+6 '
expect_depends libveltrix-openssl "libveltrix $exact" 'libssl3 \(>= 3'
expect_depends libveltrix-dev "libveltrix $exact"
expect_depends veltrix "libveltrix $exact" "libveltrix-openssl $exact" "procps"

expect_files libveltrix "usr/lib/$triplet/libveltrix.so"
expect_files libveltrix-openssl usr/lib/secure/libveltrix_openssl.so
expect_files libveltrix-dev usr/include/veltrix/vxBase.h usr/include/veltrix/vxNetClient.h \
    usr/include/veltrix/vxNetServer.h usr/include/veltrix/vxExport.h 'usr/include/veltrix/*.h' \
    "usr/lib/$triplet/cmake/veltrix/veltrixConfig.cmake" \
    "usr/lib/$triplet/cmake/veltrix/veltrixConfigVersion.cmake" \
    "usr/lib/$triplet/cmake/veltrix/libveltrixTargets.cmake" \
    "usr/lib/$triplet/cmake/veltrix/libveltrixTargets-*.cmake" \
    "usr/lib/$triplet/pkgconfig/libveltrix.pc"
expect_files veltrix usr/bin/veltrix usr/share/man/man1/veltrix.1.gz \
    'usr/lib/systemd/system/veltrix-tunnel@.service'

# The binaries: built for ARCH, stripped.
machine=$(case "$arch" in amd64) echo X86-64 ;; armhf) echo ARM ;; *) echo "$arch" ;; esac)
for package in libveltrix libveltrix-openssl veltrix; do
    dpkg-deb -x "$(deb "$package")" "$scratch/files"
done
while IFS= read -r -d '' binary; do
    readelf -h "$binary" | grep -q "Machine:.*$machine" || fail "${binary#"$scratch"/files} is not for $arch"
    if readelf -S "$binary" | grep -qE ' \.(symtab|debug_info) '; then
        fail "${binary#"$scratch"/files} is not stripped"
    fi
done < <(find "$scratch/files" -type f \( -name '*.so' -o -path '*/bin/*' \) -print0)
# The manual page renders without a warning.
warnings=$(zcat "$scratch/files/usr/share/man/man1/veltrix.1.gz" | groff -man -Tutf8 -ww -z 2>&1)
[ -z "$warnings" ] || fail "the manual page renders with warnings: $warnings"
echo "packages ($arch): 4 packages at $version, dependencies, files, modes and binaries as expected"

[ "$arch" = "$(dpkg --print-architecture)" ] || exit 0

# Installable here: the dependencies resolve against this system, and dpkg installs all four
# into a scratch root (whose own package database knows nothing of the system's, hence
# --force-depends there).
debs=("$(deb libveltrix)" "$(deb libveltrix-openssl)" "$(deb libveltrix-dev)" "$(deb veltrix)")
apt-get install --simulate "${debs[@]}" >"$scratch/apt.log" 2>&1 ||
    fail "the dependencies do not resolve: $(tail -n 5 "$scratch/apt.log")"
root="$scratch/root"
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/triggers"
touch "$root/var/lib/dpkg/status"
dpkg --root="$root" --force-depends --force-script-chrootless -i "${debs[@]}" >"$scratch/dpkg.log" 2>&1 ||
    fail "dpkg could not install them: $(tail -n 5 "$scratch/dpkg.log")"

# The installed program finds the installed library and plug-in.
versions=$(LD_LIBRARY_PATH="$root/usr/lib/$triplet" "$root/usr/bin/veltrix" \
    --plugin-path "$root/usr/lib/secure" --version)
grep -q '| openssl .*| Plug-in' <<<"$versions" || fail "the installed program lacks its plug-in: $versions"

# The service unit: valid for systemd, and as confined as a security tool's should be.
mkdir -p "$scratch/unit" "$root/bin"
cp "$root/usr/lib/systemd/system/veltrix-tunnel@.service" "$scratch/unit/veltrix-tunnel@web.service"
# The root holds these packages alone; the unit's reload runs /bin/kill of procps, a dependency.
cp /bin/kill "$root/bin/kill"
systemd-analyze verify --root="$root" --man=no --recursive-errors=no \
    "$scratch/unit/veltrix-tunnel@web.service" || fail "systemd rejects the service unit"
exposure=$(systemd-analyze security --offline=yes --root="$root" \
    "$scratch/unit/veltrix-tunnel@web.service" 2>&1 | sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\).*/\1/p')
[ -n "$exposure" ] && awk -v e="$exposure" 'BEGIN { exit !(e <= 2.0) }' ||
    fail "the service unit's exposure is ${exposure:-unknown}, above 2.0"
echo "packages ($arch): installed in a scratch root; program and plug-in run; unit verified (exposure $exposure)"

examples/build-and-run.sh "$root" /usr
