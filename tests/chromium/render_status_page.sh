#!/usr/bin/env bash
# Renders the memory's status page in headless Chromium: starts rxbroker on
# free ports, fills the memory through the rxmemory command line (data of
# every kind, events with subscribers, micro-events, a value holding a
# <script>), then checks
#   - the HTTP answer forbids scripts (Content-Security-Policy) while the page
#     shows the <script> value as it is,
#   - the browser did not run that script (its DOM after loading),
#   - the screenshot is a real picture of the page.
# Usage: render_status_page.sh RXBROKER RXMEMORY [SCREENSHOT.png]
# Exits 0 with "chromium not installed: skipped" where there is no Chromium.
set -euo pipefail

broker_bin=${1:?usage: render_status_page.sh RXBROKER RXMEMORY [SCREENSHOT.png]}
cli_bin=${2:?usage: render_status_page.sh RXBROKER RXMEMORY [SCREENSHOT.png]}

chromium_bin=$(command -v chromium || command -v chromium-browser || true)
if [ -z "$chromium_bin" ]; then
  echo "chromium not installed: skipped"
  exit 0
fi

work=$(mktemp -d /tmp/rxchromium-XXXXXX)
screenshot=${3:-$work/page.png}
broker_pid=
cleanup() {
  if [ -n "$broker_pid" ]; then
    kill "$broker_pid" 2>/dev/null || true
    wait "$broker_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# ---- The broker, on ports the system picks ----
mkfifo "$work/broker.out"
"$broker_bin" --listen tcp://127.0.0.1:0 --http 127.0.0.1:0 --data-path "$work" --log '*=error' \
  >"$work/broker.out" 2>"$work/broker.err" &
broker_pid=$!
exec 3<"$work/broker.out"
url= http= ready=
# Each line must come within 10 s: a bounded wait on the broker's own words.
while IFS= read -r -t 10 line <&3; do
  case "$line" in
    "rxbroker: listening on "*) url=${line#rxbroker: listening on } ;;
    "rxbroker: status pages on "*) http=${line#rxbroker: status pages on } ; http=${http%/RXMemory} ;;
    "rxbroker: press Ctrl-C to stop") ready=1; break ;;
  esac
done
[ -n "$ready" ] || fail "rxbroker did not start: $(cat "$work/broker.err")"
[ -n "$url" ] && [ -n "$http" ] || fail "rxbroker did not say where it listens"

rx() { "$cli_bin" --url "$url" --http "$http" "$@"; }

# ---- Data of every kind ----
rx insert Robot/Battery 87
rx insert Robot/Speed 0.5
rx insert Robot/Name '"Rex the robot"'
rx insert Robot/Mode idle
rx insert Robot/Pose '[1.5, -2.25, [0, "deg"]]'
rx insert Robot/Charging true
rx insert Robot/Nothing null
# A binary key is shown through its two companion keys.
rx insert Camera/Frame '{"$binary": "/9j/4AAQSkZJRgABAQ=="}'
rx insert Camera/Frame_type '"jpeg"'
rx insert Camera/Frame_val 14
# Names and values reach the page unescaped: the browser must not run this.
# (No quotes inside: the page shows strings quoted, with '"' escaped.)
rx insert Robot/Script '"<script>document.body.textContent=123*1000+456</script>"'
rx describe Robot/Battery 'charge left, in percent'

# ---- Events with subscribers, micro-events ----
rx raise Robot/Bumped '["left", 2]'
rx raise Robot/Bumped '["right", 1]'
# Subscription records exist even for modules that are not (yet) there.
rx call subscribeToEvent Robot/Bumped SomeModule onEvent
rx call subscribeToEvent Robot/Bumped OtherModule onBump
rx call declareEvent Robot/Fallen FallDetector
rx raise-micro Sonar/Near 0.42
rx call subscribeToMicroEvent Sonar/Near SomeModule near onNear
rx raise-micro Sonar/Far 3

[ "$(rx subscribers Robot/Bumped | sort | tr '\n' ' ')" = "OtherModule SomeModule " ] ||
  fail "subscribers of Robot/Bumped: $(rx subscribers Robot/Bumped)"

# ---- The HTTP answer ----
page_url="$http/RXMemory"
if command -v curl >/dev/null 2>&1; then
  curl -si --max-time 10 "$page_url" >"$work/answer.txt" || fail "curl $page_url failed"
  head -1 "$work/answer.txt" | grep -q '^HTTP/1.1 200' || fail "status: $(head -1 "$work/answer.txt")"
  csp=$(grep -i '^Content-Security-Policy:' "$work/answer.txt" || true)
  echo "$csp" | grep -q "script-src 'none'" || fail "no script-src 'none' in the policy: '$csp'"
  echo "$csp" | grep -q "default-src 'none'" || fail "no default-src 'none' in the policy: '$csp'"
  grep -qF '<script>document.body.textContent=123*1000+456</script>' "$work/answer.txt" ||
    fail "the <script> value is not on the page as it is"
else
  echo "curl not installed: header check skipped"
fi
rx page >"$work/page.html"
for needle in '<td>87</td>' '<td>0.5</td>' 'Robot/Pose' '"jpeg" 14' 'OtherModule SomeModule ' \
  '<h4>Micro-event</h4>' 'Sonar/Near' '<script>document.body'; do
  grep -qF "$needle" "$work/page.html" || fail "'$needle' is not on the page"
done

# ---- The browser ----
chrome() {
  timeout 90 "$chromium_bin" --headless --no-sandbox --disable-gpu --disable-background-networking \
    --disable-component-update --disable-sync --no-first-run --disable-dev-shm-usage \
    --user-data-dir="$(mktemp -d "$work/profile-XXXXXX")" "$@" 2>>"$work/chromium.err"
}
chrome --dump-dom "$page_url" >"$work/dom.html" || fail "chromium --dump-dom failed: $(tail -5 "$work/chromium.err")"
grep -qF 'Robot/Battery' "$work/dom.html" || fail "the rendered page lost its table: $(head -c 300 "$work/dom.html")"
grep -qF '123456' "$work/dom.html" && fail "the browser ran the script of Robot/Script"

rm -f "$screenshot"
chrome --screenshot="$screenshot" --window-size=1200,900 "$page_url" >/dev/null ||
  fail "chromium --screenshot failed: $(tail -5 "$work/chromium.err")"
[ -s "$screenshot" ] || fail "no screenshot at $screenshot"
# A PNG of 1200 x 900 pixels: signature, then the IHDR chunk's width and height.
signature=$(od -An -tx1 -N8 "$screenshot" | tr -d ' \n')
[ "$signature" = "89504e470d0a1a0a" ] || fail "$screenshot is not a PNG ($signature)"
size=$(od -An -tx1 -j16 -N8 "$screenshot" | tr -d ' \n')
[ "$size" = "000004b000000384" ] || fail "the screenshot is not 1200x900 (IHDR $size)"
# A blank 1200x900 page compresses to about 5 KB; three tables of text take far more.
bytes=$(wc -c <"$screenshot")
[ "$bytes" -gt 20000 ] || fail "the screenshot is nearly empty ($bytes bytes)"

echo "status page rendered: $bytes bytes of PNG, scripts refused"
