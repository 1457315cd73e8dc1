#!/usr/bin/env bash
# decode_bench.sh: how fast `veltrix decode` reads a large capture, beside the library's in-memory
# receive rate measured by `veltrix bench` in the same run, and the memory it takes. How it
# measures: bench/README.md.
#
# Usage: bench/decode_bench.sh [--size SIZE] [--veltrix PATH] [--keep]
#   --size SIZE    bytes sent, with K/M/G for KiB/MiB/GiB (default 1G)
#   --veltrix P    the veltrix program (default build/default/apps/veltrix/veltrix; env VELTRIX)
#   --keep         keep the scratch directory (the capture) and print its path
#
# Needs tcpdump and the right to capture on the loopback interface (root). A step that fails
# stops the script with its reason and status 1.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
veltrix=${VELTRIX:-$root/build/default/apps/veltrix/veltrix}
size=1G
keep=0
while [ $# -gt 0 ]; do
    case $1 in
    --size) size=$2; shift 2 ;;
    --veltrix) veltrix=$2; shift 2 ;;
    --keep) keep=1; shift ;;
    *) echo "usage: $0 [--size SIZE] [--veltrix PATH] [--keep]" >&2; exit 2 ;;
    esac
done
command -v tcpdump >/dev/null || { echo "decode_bench: tcpdump is not installed" >&2; exit 1; }

scratch=$(mktemp -d)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    if [ "$keep" = 1 ]; then echo "kept: $scratch"; else rm -rf "$scratch"; fi
}
trap cleanup EXIT

bytes=$(numfmt --from=iec "$size")
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
psk=$scratch/psk
head -c 32 /dev/urandom | od -An -tx1 | tr -d ' \n' >"$psk"
chmod 600 "$psk"

# The capture: a large kernel buffer, so that tcpdump drops nothing while cat runs at full speed.
tcpdump -i lo -s 0 -B 262144 -U -w "$scratch/bulk.pcap" "tcp port $port" 2>"$scratch/tcpdump.log" &
pids+=($!)
for _ in $(seq 100); do grep -q "listening on" "$scratch/tcpdump.log" && break; sleep 0.1; done
grep -q "listening on" "$scratch/tcpdump.log" || { cat "$scratch/tcpdump.log" >&2; exit 1; }
"$veltrix" cat --once --listen "127.0.0.1:$port" --psk-file "$psk" </dev/null >/dev/null &
listener=$!
for _ in $(seq 100); do
    ss -ltn "sport = :$port" | grep -q LISTEN && break
    sleep 0.05
done
head -c "$bytes" /dev/zero | "$veltrix" cat "127.0.0.1:$port" --psk-file "$psk" >/dev/null
wait "$listener"
sleep 0.5
kill -INT "${pids[0]}"
wait "${pids[0]}" || true
pids=()
dropped=$(grep -o '[0-9]* packets dropped by kernel' "$scratch/tcpdump.log" | cut -d' ' -f1)
[ "${dropped:-0}" = 0 ] || { echo "decode_bench: tcpdump dropped $dropped packets" >&2; exit 1; }

# Decode, timed, its largest resident size with it.
start=$(date +%s.%N)
/usr/bin/env time -f "%M" -o "$scratch/rss" "$veltrix" decode "$scratch/bulk.pcap" \
    --psk-file "$psk" --cipher aes256 --hash md5 --stream >"$scratch/decoded" \
    || { tail -3 "$scratch/decoded" >&2; exit 1; }
end=$(date +%s.%N)
payload=$(awk '/client>server: [0-9]+ packets/ {print $4}' "$scratch/decoded")
packets=$(awk '/client>server: [0-9]+ packets/ {print $2}' "$scratch/decoded")

# The library's receive of a 16384-byte packet, in memory, in the same run.
"$veltrix" bench --seconds 0.3 --csv "$scratch/bench.csv" >/dev/null
receive=$(awk -F, '$1 == "receive" && $2 == 16384 && $5 ~ /^us\// {print $3; exit}' "$scratch/bench.csv")

awk -v start="$start" -v end="$end" -v payload="$payload" -v packets="$packets" \
    -v receive="$receive" -v rss="$(cat "$scratch/rss")" \
    -v file="$(stat -c %s "$scratch/bulk.pcap")" 'BEGIN {
    seconds = end - start
    rate = payload / seconds / 1e6
    inMemory = 16384 / receive
    printf "capture             %.1f MiB, %d packets client>server, %.1f MiB payload\n", \
        file / 1048576, packets, payload / 1048576
    printf "decode              %.2f s, %.1f MB/s of payload\n", seconds, rate
    printf "library receive     %.2f us per 16384-byte packet in memory, %.1f MB/s\n", \
        receive, inMemory
    printf "ratio               %.2f (decode / in-memory receive; goal >= 0.8)\n", rate / inMemory
    printf "decode memory       %.1f MiB resident at most, for a %.1f MiB capture\n", \
        rss / 1024, file / 1048576
}'
