#!/usr/bin/env bash
# Checks the Debian packages that cpack made in DIR for the architecture ARCH: each package's
# name, architecture and dependencies, the files it holds with their owners and modes, its control
# area (conffiles, maintainer scripts, triggers), its copyright file and changelog, that every
# binary in it is stripped and built for ARCH, and what the veltrix package's maintainer scripts
# do with systemd running or not and with the deb-systemd tools there or not. For the build
# machine's own architecture it then installs them into a scratch root with dpkg, checks that
# their dependencies resolve on this system, upgrades, removes, purges and reinstalls the program
# there (its conffile kept, then gone), verifies the service unit, runs the installed program,
# starts a tunnel of the installed example configuration and builds and runs the examples against
# the installed copy.
#   packaging/check-packages.sh DIR ARCH
set -euo pipefail
dir=$(cd "$1" && pwd)
cd "$(dirname "$0")/.."
arch=$2
triplet=$(dpkg-architecture -a "$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
scratch=$(mktemp -d)
cleanup() {
    # A tunnel of the example configuration that a failed check left running.
    if [ -s "$scratch/tunnel.pid" ]; then
        kill "$(cat "$scratch/tunnel.pid")" 2>/dev/null || true
    fi
    rm -rf "$scratch"
}
trap cleanup EXIT

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

# The package's control area holds exactly the listed members (NAME:MODE), root's, and each
# maintainer script in it is a POSIX shell script that stops at the first error and parses.
expect_control() {
    local package=$1 listing mode owner path wanted name
    shift
    mkdir -p "$scratch/control/$package"
    dpkg-deb --control "$(deb "$package")" "$scratch/control/$package"
    listing=$(dpkg-deb --ctrl-tarfile "$(deb "$package")" | tar -tvf -)
    while read -r mode owner _ _ _ path; do
        [ "${mode:0:1}" = d ] && continue
        [ "$owner" = root/root ] || fail "$package: control member $path belongs to $owner"
        path=${path#./}
        case " $* " in
        *" $path:$mode "*) ;;
        *) fail "$package: control member $path ($mode) is not one of: $*" ;;
        esac
    done <<<"$listing"
    for wanted in "$@"; do
        name=${wanted%%:*}
        grep -qE " \./$name$" <<<"$listing" || fail "$package: the control area lacks $name"
        case "$name" in
        preinst | postinst | prerm | postrm)
            local script="$scratch/control/$package/$name"
            [ "$(head -n 1 "$script")" = "#!/bin/sh" ] || fail "$package: $name is not a #!/bin/sh script"
            grep -qx 'set -e' "$script" || fail "$package: $name does not set -e"
            sh -n "$script" || fail "$package: $name does not parse"
            ;;
        esac
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

expect_files libveltrix "usr/lib/$triplet/libveltrix.so" "usr/lib/$triplet/libveltrix-session.so" \
    usr/share/doc/libveltrix/copyright usr/share/doc/libveltrix/changelog.Debian.gz
expect_files libveltrix-openssl usr/lib/secure/libveltrix_openssl.so \
    usr/share/doc/libveltrix-openssl/copyright usr/share/doc/libveltrix-openssl/changelog.Debian.gz
expect_files libveltrix-dev usr/include/veltrix/vxBase.h usr/include/veltrix/vxNetClient.h \
    usr/include/veltrix/vxNetServer.h usr/include/veltrix/vxExport.h usr/include/veltrix/session.h 'usr/include/veltrix/*.h' \
    "usr/lib/$triplet/cmake/veltrix/veltrixConfig.cmake" \
    "usr/lib/$triplet/cmake/veltrix/veltrixConfigVersion.cmake" \
    "usr/lib/$triplet/cmake/veltrix/libveltrixTargets.cmake" \
    "usr/lib/$triplet/cmake/veltrix/libveltrixTargets-*.cmake" \
    "usr/lib/$triplet/pkgconfig/libveltrix.pc" "usr/lib/$triplet/pkgconfig/libveltrix-session.pc" \
    usr/share/doc/libveltrix-dev/copyright usr/share/doc/libveltrix-dev/changelog.Debian.gz
expect_files veltrix usr/bin/veltrix usr/share/man/man1/veltrix.1.gz \
    'usr/lib/systemd/system/veltrix-tunnel@.service' etc/veltrix/example.conf \
    usr/share/doc/veltrix/copyright usr/share/doc/veltrix/changelog.Debian.gz

# The control areas. cpack adds the ldconfig calls of the packages with a library in /usr/lib;
# libveltrix's trigger runs ldconfig as well. The program's example configuration is its one
# conffile.
expect_control libveltrix control:-rw-r--r-- md5sums:-rw-r--r-- triggers:-rw-r--r-- \
    postinst:-rwxr-xr-x postrm:-rwxr-xr-x
expect_control libveltrix-openssl control:-rw-r--r-- md5sums:-rw-r--r-- postinst:-rwxr-xr-x \
    postrm:-rwxr-xr-x
expect_control libveltrix-dev control:-rw-r--r-- md5sums:-rw-r--r--
expect_control veltrix control:-rw-r--r-- md5sums:-rw-r--r-- conffiles:-rw-r--r-- \
    postinst:-rwxr-xr-x prerm:-rwxr-xr-x postrm:-rwxr-xr-x
grep -qx 'activate-noawait ldconfig' "$scratch/control/libveltrix/triggers" ||
    fail "libveltrix no longer activates the ldconfig trigger"
conffiles=$(cat "$scratch/control/veltrix/conffiles")
[ "$conffiles" = /etc/veltrix/example.conf ] || fail "veltrix's conffiles are not /etc/veltrix/example.conf: $conffiles"

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

# Each package's copyright file: the machine-readable format, one and the same for all. Its
# changelog: compressed with neither name nor time stamp (gzip -9n), a Debian changelog whose
# latest entry is the packages' version.
dpkg-deb -x "$(deb libveltrix-dev)" "$scratch/files"
for package in libveltrix libveltrix-openssl libveltrix-dev veltrix; do
    doc="$scratch/files/usr/share/doc/$package"
    [ "$(head -n 1 "$doc/copyright")" = \
        "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/" ] ||
        fail "$package: the copyright file is not in the machine-readable format"
    for field in Upstream-Name Files Copyright License; do
        grep -q "^$field: ." "$doc/copyright" || fail "$package: the copyright file has no $field field"
    done
    cmp -s "$doc/copyright" "$scratch/files/usr/share/doc/libveltrix/copyright" ||
        fail "$package: the copyright file differs from libveltrix's"
    gzip -t "$doc/changelog.Debian.gz" || fail "$package: changelog.Debian.gz does not decompress"
    # Bytes 3 to 7 of the header: the flags (no file name) and the modification time (none).
    [ "$(od -An -tx1 -j3 -N5 "$doc/changelog.Debian.gz" | tr -d ' \n')" = 0000000000 ] ||
        fail "$package: changelog.Debian.gz keeps a file name or time stamp (not gzip -n)"
    zcat "$doc/changelog.Debian.gz" >"$scratch/changelog"
    logged=$(dpkg-parsechangelog -l "$scratch/changelog" -S Version 2>&1) ||
        fail "$package: the changelog does not parse: $logged"
    [ "$logged" = "$version" ] || fail "$package: the changelog's latest entry is $logged, not $version"
done
echo "packages ($arch): 4 packages at $version, dependencies, files, modes, control areas," \
    "copyright files, changelogs and binaries as expected"

# The veltrix package's maintainer scripts, run as dpkg runs them, with stand-ins for systemctl
# and the deb-systemd tools that log their calls (systemctl lists two running tunnels, or fails
# and says nothing). systemd runs when /run/systemd/system exists; the case this machine is not
# in is made in a mount namespace with a /run of its own where that is allowed, and otherwise
# left out.
scripts="$scratch/control/veltrix"
stubs="$scratch/stubs"
mkdir -p "$stubs/all" "$stubs/bare"
for tool in systemctl deb-systemd-invoke deb-systemd-helper; do
    {
        echo '#!/bin/sh'
        echo "echo \"$tool \$*\" >>\"\$VX_CALLS\""
        echo '[ "${VX_STATUS:-0}" = 0 ] || exit "$VX_STATUS"'
        echo 'case "$*" in'
        echo "*list-units*) echo 'veltrix-tunnel@a.service loaded active running veltrix encrypted tunnel a'"
        echo "    echo 'veltrix-tunnel@b.service loaded active running veltrix encrypted tunnel b' ;;"
        echo 'esac'
        echo 'exit 0'
    } >"$stubs/all/$tool"
    chmod 755 "$stubs/all/$tool"
done
# Without the deb-systemd tools: systemctl, and awk, what the scripts need beyond the shell.
cp "$stubs/all/systemctl" "$stubs/bare/systemctl"
ln -s "$(command -v awk)" "$stubs/bare/awk"
namespace=(unshare --mount)
[ "$(id -u)" -eq 0 ] || namespace=(unshare --mount --map-root-user)
here=absent
[ -d /run/systemd/system ] && here=running
elsewhere=0
"${namespace[@]}" sh -c 'mount -t tmpfs tmpfs /run' 2>/dev/null && elsewhere=1
skipped=""
dpkg_root=()

# run_script SYSTEMD TOOLS STATUS SCRIPT ARGS...: runs SCRIPT with systemd running or absent,
# with all the tools or bare, the stand-ins exiting with STATUS; prints the calls it made but
# the listing of the running tunnels. Returns 2 when that state of systemd cannot be made here.
run_script() {
    local systemd=$1 tools=$2 status=$3 script=$4
    shift 4
    local calls="$scratch/calls" path="$stubs/bare"
    [ "$tools" = all ] && path="$stubs/all:$PATH"
    : >"$calls"
    local run=(env -i "PATH=$path" "VX_CALLS=$calls" "VX_STATUS=$status"
        DPKG_MAINTSCRIPT_PACKAGE=veltrix "${dpkg_root[@]}" "$scripts/$script" "$@")
    if [ "$systemd" = "$here" ]; then
        "${run[@]}" >/dev/null || return
    elif [ $elsewhere = 1 ]; then
        # shellcheck disable=SC2016 # expanded by the inner shell
        "${namespace[@]}" sh -c 'mount -t tmpfs tmpfs /run && { [ "$0" = absent ] ||
            mkdir -p /run/systemd/system; } && exec "$@"' "$systemd" "${run[@]}" >/dev/null || return
    else
        return 2
    fi
    grep -v ' list-units ' "$calls" || true
}

# expect_calls SYSTEMD TOOLS STATUS EXPECTED SCRIPT ARGS...: the script exits with 0 and makes
# exactly the EXPECTED calls, one a line.
expect_calls() {
    local systemd=$1 tools=$2 status=$3 expected=$4 made rc=0
    shift 4
    made=$(run_script "$systemd" "$tools" "$status" "$@") || rc=$?
    if [ $rc = 2 ]; then
        skipped="systemd $systemd"
        return
    fi
    [ $rc = 0 ] || fail "veltrix: '$*' exits with $rc (systemd $systemd, tools $tools, stand-ins exit $status)"
    [ "$made" = "$expected" ] || fail "veltrix: '$*' (systemd $systemd, tools $tools) calls:" \
        "${made:-nothing}" "-- instead of:" "${expected:-nothing}"
}

reload='systemctl --system daemon-reload'
tunnels='veltrix-tunnel@a.service veltrix-tunnel@b.service'
purge_state='deb-systemd-helper purge veltrix-tunnel@.service'
# Without systemd nothing is asked of it: a container, a chroot, an image being built.
for tools in all bare; do
    expect_calls absent "$tools" 0 "" postinst configure ""
    expect_calls absent "$tools" 0 "" postinst configure 1.0-1
    expect_calls absent "$tools" 0 "" prerm remove
    expect_calls absent "$tools" 0 "" postrm remove
done
expect_calls absent all 0 "$purge_state" postrm purge
expect_calls absent bare 0 "" postrm purge
# With systemd: a reload on install; after an upgrade, the tunnels that run are restarted through
# deb-systemd-invoke (which asks policy-rc.d); on removal they stop; an upgrade leaves them
# running until the new version's postinst. Without deb-systemd-invoke they are left as they are.
expect_calls running all 0 "$reload" postinst configure ""
expect_calls running all 0 "$reload"$'\n'"deb-systemd-invoke try-restart $tunnels" postinst configure 1.0-1
expect_calls running bare 0 "$reload" postinst configure 1.0-1
expect_calls running all 0 "$reload" postinst abort-upgrade ""
expect_calls running all 0 "deb-systemd-invoke stop $tunnels" prerm remove
expect_calls running bare 0 "" prerm remove
expect_calls running all 0 "" prerm upgrade 2.0-1
expect_calls running all 0 "$reload" postrm remove
expect_calls running all 0 "$purge_state"$'\n'"$reload" postrm purge
expect_calls running all 0 "" postrm upgrade 2.0-1
# A systemd that does not answer, or tools that fail, do not fail the package's installation.
expect_calls running all 1 "$reload" postinst configure 1.0-1
expect_calls running all 1 "" prerm remove
expect_calls running bare 1 "$reload" postrm purge
# dpkg working on another root (DPKG_ROOT) leaves this machine's systemd alone.
dpkg_root=(DPKG_ROOT=/nonexistent)
expect_calls running all 0 "" postinst configure 1.0-1
expect_calls running all 0 "" prerm remove
expect_calls running all 0 "$purge_state" postrm purge
dpkg_root=()
# An action the scripts do not know is an error.
for script in postinst prerm postrm; do
    if run_script "$here" all 0 "$script" frobnicate >/dev/null 2>&1; then
        fail "veltrix: $script accepts an unknown action"
    fi
done
echo "packages ($arch): maintainer scripts behave with systemd running and absent, with and" \
    "without the deb-systemd tools${skipped:+ (not tested: $skipped, no mount namespace here)}"

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
# The maintainer scripts run on this machine, with DPKG_ROOT naming the scratch root.
in_root() {
    dpkg --root="$root" --force-depends --force-script-chrootless "$@" </dev/null >>"$scratch/dpkg.log" 2>&1 ||
        fail "dpkg $* failed in the scratch root: $(tail -n 5 "$scratch/dpkg.log")"
}
in_root -i "${debs[@]}"
example="$root/etc/veltrix/example.conf"
dpkg-query --admindir="$root/var/lib/dpkg" -W -f='${Conffiles}' veltrix |
    grep -q '^ /etc/veltrix/example.conf [0-9a-f]\{32\}$' ||
    fail "dpkg did not register /etc/veltrix/example.conf as a conffile"
# An upgrade (here to the same version) keeps the administrator's change to the conffile; a
# removal keeps the file, a purge takes it and its directory; then the package goes in again.
echo '# changed by the administrator' >>"$example"
in_root -i "$(deb veltrix)"
grep -qx '# changed by the administrator' "$example" || fail "an upgrade lost the change to the conffile"
in_root --remove veltrix
[ -f "$example" ] && [ ! -e "$root/usr/bin/veltrix" ] || fail "removing veltrix did not keep its conffile alone"
in_root --purge veltrix
[ ! -e "$root/etc/veltrix" ] || fail "purging veltrix left $(find "$root/etc/veltrix" | head -n 3)"
in_root -i "$(deb veltrix)"
cmp -s "$example" "$scratch/files/etc/veltrix/example.conf" || fail "reinstalled, the conffile is not the package's"

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
echo "packages ($arch): installed in a scratch root, upgraded, removed, purged and reinstalled;" \
    "program and plug-in run; unit verified (exposure $exposure)"

# The example configuration is where the unit's instance "example" looks for its file, and the
# installed program runs a tunnel of it, with the secret and the other command-line options the
# unit gives, until told to stop. When its port is taken on this machine, a copy that lets the
# system choose the port stands in. Every setting shown commented out is valid as well: with all
# of them in force, the tunnel goes past the file and stops only at the secret file it names.
config=$(sed -n 's/^ExecStart=.* --config \([^ ]*\).*/\1/p' "$root/usr/lib/systemd/system/veltrix-tunnel@.service")
[ "${config//%i/example}" = /etc/veltrix/example.conf ] ||
    fail "the unit reads ${config:-no configuration}, not /etc/veltrix/NAME.conf"
installed_veltrix=(env "LD_LIBRARY_PATH=$root/usr/lib/$triplet" "$root/usr/bin/veltrix"
    --plugin-path "$root/usr/lib/secure")
printf 'the secret of the check' >"$scratch/psk"
chmod 600 "$scratch/psk"
tunnel_of() {
    "${installed_veltrix[@]}" tunnel --config "$1" --psk-file "$scratch/psk" --workers 1 \
        --pid-file "$scratch/tunnel.pid" --log-file "$scratch/tunnel.log" 2>"$scratch/tunnel.err"
}
tried="$example"
note=""
if ! tunnel_of "$tried"; then
    grep -q 'Address already in use' "$scratch/tunnel.err" ||
        fail "no tunnel runs of the example configuration: $(cat "$scratch/tunnel.err")"
    tried="$scratch/example.conf"
    sed 's/^accept = \(.*\):[0-9]*$/accept = \1:0/' "$example" >"$tried"
    tunnel_of "$tried" || fail "no tunnel runs of the example configuration: $(cat "$scratch/tunnel.err")"
    note=" (its port taken here, on a port the system chose)"
fi
pid=$(cat "$scratch/tunnel.pid")
grep -q "veltrix-tunnel@example\[[0-9]*\] notice: example: client tunnel listening on " "$scratch/tunnel.log" ||
    fail "the example's tunnel did not log that it listens: $(cat "$scratch/tunnel.log")"
kill "$pid"
for _ in $(seq 50); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.2
done
! kill -0 "$pid" 2>/dev/null || fail "the example's tunnel did not stop on SIGTERM"
grep -q 'notice: stopped$' "$scratch/tunnel.log" || fail "the example's tunnel did not log its stop"
sed -E 's/^#(\[[a-z]+\]$|[a-z-]+ = )/\1/' "$example" >"$scratch/all.conf"
grep -qx 'max-handshakes-per-source = 16' "$scratch/all.conf" && grep -qx '\[web\]' "$scratch/all.conf" ||
    fail "the example's commented settings did not come into force"
status=0
tunnel_of "$scratch/all.conf" || status=$?
[ $status = 1 ] && grep -q 'secret file /etc/veltrix/example.psk' "$scratch/tunnel.err" ||
    fail "the example with its settings in force is refused (status $status): $(cat "$scratch/tunnel.err")"
echo "packages ($arch): a tunnel of the installed example configuration ran and stopped$note;" \
    "its commented settings are valid"

examples/build-and-run.sh "$root" /usr
