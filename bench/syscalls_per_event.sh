#!/usr/bin/env bash
# System calls per event across processes: a real rxbroker, one client that
# raises an event N times (blocking raiseEvent calls), one client subscribed to
# it. strace -c counts the calls of the broker and of the subscriber while
# the events flow; the totals are divided by N.
#
#   bench/syscalls_per_event.sh BUILD_DIR [N]      (BUILD_DIR holds rxbroker and rx_e2e_client)
set -euo pipefail
build=$(cd "${1:?usage: $0 BUILD_DIR [N]}" && pwd)
n=${2:-20000}
command -v strace >/dev/null || { echo "strace is not installed (scripts/install-deps --bench)" >&2; exit 1; }
dir=$(mktemp -d /tmp/rx-syscalls-XXXXXX)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$dir"
}
trap cleanup EXIT
endpoint="unix://$dir/rx.sock"
"$build/rxbroker" --listen "$endpoint" --no-http >"$dir/broker.log" 2>&1 &
pids+=($!); broker=$!
for _ in $(seq 100); do [[ -S $dir/rx.sock ]] && break; sleep 0.05; done
mkfifo "$dir/sub.in" "$dir/raise.in"
"$build/rx_e2e_client" "$endpoint" Bench/Syscalls Subscriber <"$dir/sub.in" >"$dir/sub.out" 2>&1 &
pids+=($!); sub=$!
exec 3>"$dir/sub.in"
"$build/rx_e2e_client" "$endpoint" Bench/Unused Raiser <"$dir/raise.in" >"$dir/raise.out" 2>&1 &
pids+=($!)
exec 4>"$dir/raise.in"
for f in sub.out raise.out; do
  for _ in $(seq 200); do grep -q ready "$dir/$f" 2>/dev/null && break; sleep 0.05; done
done
echo "raise 1000 Bench/Syscalls" >&4   # warm-up
for _ in $(seq 600); do grep -q "raised 1000" "$dir/raise.out" && break; sleep 0.05; done
strace -c -f -p "$broker" -o "$dir/broker.strace" 2>/dev/null & pids+=($!); sb=$!
strace -c -f -p "$sub" -o "$dir/sub.strace" 2>/dev/null & pids+=($!); ss=$!
sleep 0.5
echo "raise $n Bench/Syscalls" >&4
for _ in $(seq 2400); do grep -q "raised $n" "$dir/raise.out" && break; sleep 0.05; done
want=$((1000 + n))
for _ in $(seq 600); do [[ $(grep -c '^event ' "$dir/sub.out") -ge $want ]] && break; sleep 0.05; done
kill -INT "$sb" "$ss"; wait "$sb" "$ss" 2>/dev/null || true
got=$(grep -c '^event ' "$dir/sub.out")
echo "events raised: $n (after 1000 warm-up), delivered in all: $got of $want"
echo "(the subscriber writes one line to its standard output per event: its 'write')"
for side in broker sub; do
  awk -v n="$n" -v side="$side" '
    $1 ~ /^[0-9.]+$/ && NF >= 5 { name = $NF; calls = $4; if (name != "total") { if (calls / n >= 0.005) printf "  %-10s %-16s %7.2f per event\n", side, name, calls / n } else total = calls }
    END { printf "  %-10s %-16s %7.2f per event\n", side, "TOTAL", total / n }' "$dir/$side.strace"
done
