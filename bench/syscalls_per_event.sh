#!/usr/bin/env bash
# System calls per event across processes: a real rxbroker, one client that
# raises an event N times (blocking raiseEvent calls), one client subscribed to
# it. perf stat counts context switches and CPU time, then strace -c the
# system calls, of the broker and of the subscriber while the events flow;
# the totals are divided by N.
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
# Raises n events and waits until the subscriber has printed `want` of them.
raise_and_wait() {
  echo "raise $n Bench/Syscalls" >&4
  for _ in $(seq 2400); do grep -q "raised $n" "$dir/raise.out" && break; sleep 0.05; done
  for _ in $(seq 600); do [[ $(grep -c '^event ' "$dir/sub.out") -ge $1 ]] && break; sleep 0.05; done
  sed -i '/^raised /d' "$dir/raise.out"
}
# First without strace, which slows every system call: context switches and
# CPU time per event, when perf is there.
want=1000
if command -v perf >/dev/null && perf stat -e context-switches true >/dev/null 2>&1; then
  perf stat -x, -e context-switches,task-clock -p "$broker" -o "$dir/broker.perf" & pids+=($!); pb=$!
  perf stat -x, -e context-switches,task-clock -p "$sub" -o "$dir/sub.perf" & pids+=($!); ps_=$!
  sleep 0.5
  want=$((want + n)); raise_and_wait "$want"
  kill -INT "$pb" "$ps_"; wait "$pb" "$ps_" 2>/dev/null || true
  for side in broker sub; do
    awk -F, -v n="$n" -v side="$side" '
      $3 == "context-switches" { printf "  %-10s %-16s %7.2f per event\n", side, "context switches", $1 / n }
      $3 == "task-clock" { printf "  %-10s %-16s %7.2f us per event\n", side, "CPU time", $1 * 1000 / n }' "$dir/$side.perf"
  done
else
  echo "(perf not available: no context switches or CPU time)"
fi
strace -c -f -p "$broker" -o "$dir/broker.strace" 2>/dev/null & pids+=($!); sb=$!
strace -c -f -p "$sub" -o "$dir/sub.strace" 2>/dev/null & pids+=($!); ss=$!
sleep 0.5
want=$((want + n)); raise_and_wait "$want"
kill -INT "$sb" "$ss"; wait "$sb" "$ss" 2>/dev/null || true
got=$(grep -c '^event ' "$dir/sub.out")
echo "events raised: $n per run (after 1000 warm-up), delivered in all: $got of $want"
echo "(the subscriber writes one line to its standard output per event: its 'write')"
for side in broker sub; do
  awk -v n="$n" -v side="$side" '
    $1 ~ /^[0-9.]+$/ && NF >= 5 { name = $NF; calls = $4; if (name != "total") { if (calls / n >= 0.005) printf "  %-10s %-16s %7.2f per event\n", side, name, calls / n } else total = calls }
    END { printf "  %-10s %-16s %7.2f per event\n", side, "TOTAL", total / n }' "$dir/$side.strace"
done
