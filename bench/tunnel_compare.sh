#!/usr/bin/env bash
# tunnel_compare.sh: `veltrix tunnel` beside stunnel, on 127.0.0.1, measured the same way.
#
# Both tunnel pairs (a client end and a server end each) wrap the same service, tunnel_driver's
# sink, and tunnel_driver measures through them; both use AES-128: stunnel with TLS 1.3, a PSK and
# TLS_AES_128_GCM_SHA256, veltrix with --cipher aes128 and a 32-byte random secret. Each measure
# runs through stunnel, then through veltrix, and every run repeats the sequence, so a drift of the
# machine's speed touches both alike. The table shows the median of the runs and their spread.
#
#   new connections per s       connect, 4-byte request, 4-byte answer, close, one after another
#   1-byte round trip           the median of many ping-pongs on one connection
#   memory per idle connection  (PSS of every process of both tunnel ends with 100 connections
#                               open and idle - the same with none) / 100; each connection is
#                               proven end to end by a 1-byte round trip before it is counted
#   one-way bulk                payload in 16 KiB writes, until the sink acknowledges all of it
#   both ways at once           64 MiB each way at the same time; it must complete
#
# The bulk figures also stand beside the in-memory reference of `veltrix bench`: the transport's
# crypto done directly with OpenSSL on 16384-byte packets, the slower of send and receive, which
# is what one end of a pipeline can do at best.
#
# Usage: bench/tunnel_compare.sh [--quick] [--runs N] [--bulk SIZE] [--veltrix PATH]
#                                [--driver PATH] [--keep-logs]
#   --quick        about a minute: 2 runs, shorter measures, 64 MiB bulk
#   --runs N       runs of every measure (default 3)
#   --bulk SIZE    one-way bulk size, with K/M/G for KiB/MiB/GiB (default 256M)
#   --veltrix P    the veltrix program (default build/default/apps/veltrix/veltrix; env VELTRIX)
#   --driver P     tunnel_driver (default: beside veltrix in its build tree; env TUNNEL_DRIVER)
#   --keep-logs    keep the scratch directory with the tunnels' logs and print its path
#
# Installs stunnel4 when it is missing. Every process it starts is ended when it exits, whatever
# the reason. A measure that fails stops the script with its one-line reason and status 1.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
veltrix=${VELTRIX:-$root/build/default/apps/veltrix/veltrix}
driver=${TUNNEL_DRIVER:-}
runs=3
bulk=256M
both=64M
connrate_seconds=3
rtt_count=2000
idle_count=100
reference_seconds=0.4
keep_logs=0

# usage STATUS: the usage text from the head of this file; to standard error unless asked for.
usage() {
    if [ "$1" = 0 ]; then
        sed -n '/^# Usage:/,/^# Installs/p' "$0" | sed '$d; s/^# \{0,1\}//'
    else
        sed -n '/^# Usage:/,/^# Installs/p' "$0" | sed '$d; s/^# \{0,1\}//' >&2
    fi
    exit "$1"
}

while [ $# -gt 0 ]; do
    case $1 in
    --quick) runs=2 bulk=64M connrate_seconds=1 rtt_count=500 reference_seconds=0.2 ;;
    --runs) runs=${2:?--runs needs a number}; shift ;;
    --bulk) bulk=${2:?--bulk needs a size}; shift ;;
    --veltrix) veltrix=${2:?--veltrix needs a path}; shift ;;
    --driver) driver=${2:?--driver needs a path}; shift ;;
    --keep-logs) keep_logs=1 ;;
    -h | --help) usage 0 ;;
    *) echo "tunnel_compare.sh: unknown option $1" >&2; usage 2 ;;
    esac
    shift
done

die() {
    echo "tunnel_compare.sh: $*" >&2
    exit 1
}

[[ $runs =~ ^[1-9][0-9]*$ ]] || die "--runs must be a positive number, not $runs"
[[ $bulk =~ ^[1-9][0-9]*[KMG]?$ ]] || die "--bulk must be a size such as 256M, not $bulk"
[ -z "$driver" ] && driver=$(dirname "$veltrix")/../../bench/tunnel_driver
[ -x "$veltrix" ] || die "no veltrix program at $veltrix (build it, or give --veltrix)"
[ -x "$driver" ] || die "no tunnel_driver at $driver (cmake --build <build dir> --target tunnel_driver, or give --driver)"

if ! command -v stunnel >/dev/null; then
    sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    echo "installing stunnel4" >&2
    "${sudo[@]}" apt-get update -qq >&2
    DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends stunnel4 >&2
fi

scratch=$(mktemp -d "${TMPDIR:-/tmp}/tunnel_compare.XXXXXX")
started=() # process group leaders: every tunnel and the sink run in a group of their own

# stop_groups PGID...: SIGTERM to every group, SIGKILL to what is left 3 s later.
stop_groups() {
    local pid alive
    for pid in "$@"; do kill -TERM -- "-$pid" 2>/dev/null || true; done
    for _ in $(seq 30); do
        alive=0
        for pid in "$@"; do kill -0 -- "-$pid" 2>/dev/null && alive=1; done
        [ $alive = 0 ] && break
        sleep 0.1
    done
    # A tunnel lets its connections finish on the first signal; whatever is left now is ended.
    for pid in "$@"; do kill -KILL -- "-$pid" 2>/dev/null || true; done
    for pid in "$@"; do wait "$pid" 2>/dev/null || true; done
}

cleanup() {
    local status=$?
    trap - EXIT INT TERM
    stop_groups "${started[@]}"
    if [ $keep_logs = 1 ]; then
        echo "logs kept in $scratch" >&2
    else
        rm -rf "$scratch"
    fi
    exit $status
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# start NAME COMMAND...: runs COMMAND in a process group of its own, output into NAME.log; its
# pid is in pid_NAME.
start() {
    local name=$1
    shift
    rm -f "$scratch/$name.log" # what an earlier run logged must not look like this one's start
    setsid "$@" >"$scratch/$name.log" 2>&1 &
    started+=($!)
    eval "pid_$name=$!"
}

# last_line NAME: the last line NAME logged.
last_line() {
    local line
    line=$(tail -n 1 "$scratch/$1.log" 2>/dev/null || true)
    echo "${line:-it said nothing}"
}

# wait_for_line NAME PATTERN: until NAME.log has a line matching PATTERN (10 s at most).
wait_for_line() {
    local name=$1 pattern=$2 pid
    eval "pid=\$pid_$name"
    for _ in $(seq 200); do
        grep -q -- "$pattern" "$scratch/$name.log" 2>/dev/null && return 0
        kill -0 "$pid" 2>/dev/null || die "$name ended at start: $(last_line "$name")"
        sleep 0.05
    done
    die "$name did not start within 10 s: $(last_line "$name")"
}

# ---- The process trees and their memory --------------------------------------------------------

# tree PID...: the processes and every descendant, one pid a line.
tree() {
    ps -e -o pid=,ppid= | awk -v roots="$*" '
        { parent[$1] = $2; pids[NR] = $1 }
        END {
            n = split(roots, queue, " ")
            for (i = 1; i <= n; i++) { inTree[queue[i]] = 1; print queue[i] }
            grown = 1
            while (grown) {
                grown = 0
                for (j in pids) {
                    p = pids[j]
                    if (!(p in inTree) && (parent[p] in inTree)) { inTree[p] = 1; print p; grown = 1 }
                }
            }
        }'
}

# pss_kb PID...: the sum of the proportional set sizes of the trees, in kB.
pss_kb() {
    local total=0 pid kb
    for pid in $(tree "$@"); do
        kb=$(awk '/^Pss:/ { print $2 }' "/proc/$pid/smaps_rollup" 2>/dev/null || true)
        total=$((total + ${kb:-0}))
    done
    echo $total
}

# tasks PID...: processes and threads of the trees.
tasks() {
    local count=0 pid
    for pid in $(tree "$@"); do
        count=$((count + $(find "/proc/$pid/task" -mindepth 1 -maxdepth 1 2>/dev/null | wc -l)))
    done
    echo $count
}

# ---- The tunnels --------------------------------------------------------------------------------

start sink "$driver" sink 0
wait_for_line sink '^listening on'
sink_port=$(sed -n 's/^listening on 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$scratch/sink.log")

head -c 32 /dev/urandom >"$scratch/veltrix.psk"
chmod 600 "$scratch/veltrix.psk"
# stunnel's secret is text: 32 characters from base64 of random bytes, without the signs.
stunnel_secret=$(head -c 48 /dev/urandom | base64 -w0 | tr -d '/+=' | cut -c1-32)
echo "bench:$stunnel_secret" >"$scratch/stunnel.psk"
chmod 600 "$scratch/stunnel.psk"

# stunnel_conf NAME ACCEPT CONNECT [client]: foreground, errors only, TLS 1.3 with the PSK.
stunnel_conf() {
    cat >"$scratch/$1.conf" <<EOF
foreground = yes
pid =
syslog = no
debug = 3
[$1]
accept = 127.0.0.1:$2
connect = 127.0.0.1:$3
PSKsecrets = $scratch/stunnel.psk
sslVersionMin = TLSv1.3
ciphersuites = TLS_AES_128_GCM_SHA256
EOF
    [ "${4:-}" = client ] && printf 'client = yes\nPSKidentity = bench\n' >>"$scratch/$1.conf"
    return 0
}

declare -A entry # the port each tunnel's client end accepts on
declare -A roots # the two process trees of each tunnel
declare -A quiet # processes and threads of each tunnel with no connection
declare -A results

# measure IMPL WHAT...: runs tunnel_driver WHAT through IMPL; its output line, or the script
# stops with the driver's reason.
measure() {
    local impl=$1 what=$2 out
    shift 2
    if ! out=$(timeout 300 "$driver" "$what" "${entry[$impl]}" "$@" 2>&1); then
        die "$what through $impl failed: $out"
    fi
    echo "$out"
}

# start_tunnels: both pairs, new processes on new ports. Each run starts afresh: a process keeps
# memory that its ended connections freed, and that must not hide the next run's idle
# connections.
start_tunnels() {
    local ports impl
    mapfile -t ports < <("$driver" ports 4)
    [ ${#ports[@]} = 4 ] || die "cannot find free ports on 127.0.0.1"
    stunnel_conf stunnel_server "${ports[0]}" "$sink_port"
    stunnel_conf stunnel_client "${ports[1]}" "${ports[0]}" client
    start stunnel_server stunnel "$scratch/stunnel_server.conf"
    start stunnel_client stunnel "$scratch/stunnel_client.conf"
    local options=(--psk-file "$scratch/veltrix.psk" --cipher aes128 --foreground
        --max-connections 1000)
    start veltrix_server "$veltrix" tunnel --server --accept "127.0.0.1:${ports[2]}" \
        --connect "127.0.0.1:$sink_port" "${options[@]}"
    start veltrix_client "$veltrix" tunnel --client --accept "127.0.0.1:${ports[3]}" \
        --connect "127.0.0.1:${ports[2]}" "${options[@]}"
    wait_for_line veltrix_server 'listening on'
    wait_for_line veltrix_client 'listening on'
    entry=([stunnel]=${ports[1]} [veltrix]=${ports[3]})
    roots=([stunnel]="$pid_stunnel_server $pid_stunnel_client"
        [veltrix]="$pid_veltrix_server $pid_veltrix_client")
    # stunnel says nothing at debug level 3 once it listens: a connection through it proves it.
    for impl in stunnel veltrix; do
        for _ in $(seq 50); do
            timeout 20 "$driver" rtt "${entry[$impl]}" 10 >/dev/null 2>&1 && break
            sleep 0.1
        done
        measure $impl rtt 10 >/dev/null # a warm-up, and the proof that the pair works
    done
    sleep 0.5
    for impl in stunnel veltrix; do quiet[$impl]=$(tasks "${roots[$impl]}"); done
}

# stop_tunnels: ends both pairs; the sink stays.
stop_tunnels() {
    local sink=${started[0]}
    stop_groups "${started[@]:1}"
    started=("$sink")
}

# settle IMPL: waits (15 s at most) until the connections of earlier measures have ended.
settle() {
    for _ in $(seq 150); do
        [ "$(tasks "${roots[$1]}")" -le "${quiet[$1]}" ] && return 0
        sleep 0.1
    done
    echo "note: $1 still had $(($(tasks "${roots[$1]}") - ${quiet[$1]})) tasks of earlier connections" >&2
}

# idle_kb IMPL: the memory per idle connection, in kB.
idle_kb() {
    local impl=$1 before after hold driver_pid
    settle "$impl"
    before=$(pss_kb "${roots[$impl]}")
    rm -f "$scratch/hold" && mkfifo "$scratch/hold"
    "$driver" idle "${entry[$impl]}" $idle_count <"$scratch/hold" >"$scratch/idle.out" 2>&1 &
    driver_pid=$!
    exec {hold}>"$scratch/hold"
    for _ in $(seq 600); do
        grep -q '^ready' "$scratch/idle.out" && break
        kill -0 $driver_pid 2>/dev/null || break
        sleep 0.1
    done
    if ! grep -q "^ready $idle_count\$" "$scratch/idle.out"; then
        exec {hold}>&-
        kill $driver_pid 2>/dev/null || true
        die "idle through $impl failed: $(cat "$scratch/idle.out")"
    fi
    sleep 0.5 # let every process of the tunnel finish setting up its connection
    after=$(pss_kb "${roots[$impl]}")
    exec {hold}>&-
    wait $driver_pid || die "idle through $impl failed: $(cat "$scratch/idle.out")"
    awk -v a="$after" -v b="$before" -v n=$idle_count 'BEGIN { printf "%.1f\n", (a - b) / n }'
}

# record KEY IMPL VALUE
record() {
    results[$1.$2]="${results[$1.$2]:-} $3"
    printf '  %-9s %-8s %s\n' "$1" "$2" "$3" >&2
}

# run_measure KEY WHAT ARG FIELD: WHAT through stunnel, then through veltrix; FIELD of each
# output line is the figure.
run_measure() {
    local key=$1 what=$2 arg=$3 field=$4 impl out
    for impl in stunnel veltrix; do
        out=$(measure $impl "$what" "$arg")
        record "$key" $impl "$(echo "$out" | awk -v f="$field" '{ print $f }')"
    done
}

for run in $(seq "$runs"); do
    echo "run $run of $runs" >&2
    start_tunnels
    for impl in stunnel veltrix; do
        kb=$(idle_kb $impl)
        record memory $impl "$kb"
    done
    run_measure rtt rtt $rtt_count 3
    run_measure connrate connrate $connrate_seconds 2
    run_measure bulk bulk "$bulk" 2
    run_measure both both $both 2
    stop_tunnels
done

# ---- The in-memory reference --------------------------------------------------------------------

echo "reference: veltrix bench --cipher aes128 --seconds $reference_seconds" >&2
reference=
if "$veltrix" bench --cipher aes128 --seconds "$reference_seconds" --csv "$scratch/reference.csv" \
    >"$scratch/reference.log" 2>&1; then
    # The slower of the direct send and receive of a 16384-byte packet: MB/s of one side.
    reference=$(awk -F, '$2 == 16384 && ($1 == "send" || $1 == "receive") && $5 == "MB/s" {
        print $4 }' "$scratch/reference.csv" | sort -g | head -n 1)
fi

# ---- The table ----------------------------------------------------------------------------------

# stats "VALUES": "median min max" of blank-separated values (for an even count the median is
# the mean of the middle two).
stats() {
    tr -s ' ' '\n' <<<"$*" | sed '/^$/d' | sort -g | awk '{ v[NR] = $1 } END {
        m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
        print m, v[1], v[NR]
    }'
}

# row LABEL KEY FORMAT [PREFIX SUFFIX]: median (min..max) of both, and veltrix/stunnel of the
# medians.
row() {
    local label=$1 key=$2 format=$3 prefix=${4:-} suffix=${5:-} s v
    read -r -a s < <(stats "${results[$key.stunnel]}")
    read -r -a v < <(stats "${results[$key.veltrix]}")
    awk -v l="$label" -v f="$format" -v p="$prefix" -v x="$suffix" -v s0="${s[0]}" \
        -v s1="${s[1]}" -v s2="${s[2]}" -v v0="${v[0]}" -v v1="${v[1]}" -v v2="${v[2]}" 'BEGIN {
        cell = p f x " (" f ".." f ")"
        st = sprintf(cell, s0, s1, s2)
        ve = sprintf(cell, v0, v1, v2)
        printf "%-34s %-34s %-34s %6.2f\n", l, st, ve, (s0 != 0 ? v0 / s0 : 0)
    }'
}

bulk_label=$(echo "$bulk" | sed 's/K$/ KiB/; s/M$/ MiB/; s/G$/ GiB/')
echo
echo "veltrix tunnel beside stunnel on 127.0.0.1, AES-128 (stunnel: TLS 1.3 PSK, TLS_AES_128_GCM_SHA256)"
echo "median of $runs runs (min..max); ratio = veltrix / stunnel"
printf '%-34s %-34s %-34s %6s\n' measure stunnel veltrix ratio
row "new connections per s" connrate "%.0f"
row "1-byte round trip, median us" rtt "%.1f"
row "memory per idle connection, kB" memory "%.1f"
row "one-way bulk $bulk_label, MB/s" bulk "%.1f"
row "both ways at once, 64 MiB each" both "%.2f" "completed in " " s"
echo
if [ -n "$reference" ]; then
    read -r -a s < <(stats "${results[bulk.stunnel]}")
    read -r -a v < <(stats "${results[bulk.veltrix]}")
    awk -v r="$reference" -v s="${s[0]}" -v v="${v[0]}" 'BEGIN {
        printf "in-memory reference (veltrix bench, direct OpenSSL, 16384-byte packets, slower side): %.1f MB/s\n", r
        printf "one-way bulk / reference: veltrix %.1f / %.1f = %.2f; stunnel %.1f / %.1f = %.2f\n", v, r, v / r, s, r, s / r
    }'
else
    echo "in-memory reference: veltrix bench failed: $(tail -n 1 "$scratch/reference.log")"
fi
