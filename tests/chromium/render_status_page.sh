#!/usr/bin/env bash
# Renders the status pages in headless Chromium, driven through WebDriver
# (chromedriver): starts rxbroker on free ports, fills the memory through the
# rxmemory command line (data of every kind, events with subscribers,
# micro-events, a value holding a <script>), then checks
#   - the HTTP answer carries the exact Content-Security-Policy (scripts
#     refused, the page's own style block allowed by its hash) and shows the
#     <script> value as it is,
#   - in the browser the page's style applies (computed font size of its
#     cells) with no policy violation for styles, on the memory page and the
#     index,
#   - the browser did not run the injected script (the DOM after loading),
#   - the screenshot is a real picture of the page.
# Usage: render_status_page.sh RXBROKER RXMEMORY [SCREENSHOT.png]
# Exits 77 (SKIPPED for ctest) when Chromium, chromedriver, curl or jq is
# missing: scripts/install-deps installs them.
set -euo pipefail

broker_bin=${1:?usage: render_status_page.sh RXBROKER RXMEMORY [SCREENSHOT.png]}
cli_bin=${2:?usage: render_status_page.sh RXBROKER RXMEMORY [SCREENSHOT.png]}

chromium_bin=$(command -v chromium || command -v chromium-browser || true)
[ -n "$chromium_bin" ] || { echo "SKIPPED: chromium not installed (scripts/install-deps installs it)"; exit 77; }
for tool in chromedriver curl jq; do
  command -v "$tool" >/dev/null 2>&1 || { echo "SKIPPED: $tool not installed (scripts/install-deps installs it)"; exit 77; }
done

work=$(mktemp -d /tmp/rxchromium-XXXXXX)
screenshot=${3:-$work/page.png}
broker_pid= driver_pid= reader_pid= driver= session=
cleanup() {
  # Quitting the session ends the browser; chromedriver runs in a process
  # group of its own, so anything of the browser still left goes with it.
  if [ -n "$session" ]; then curl -s --max-time 10 -X DELETE "$driver/session/$session" >/dev/null || true; fi
  if [ -n "$driver_pid" ]; then kill -- "-$driver_pid" 2>/dev/null || true; fi
  for pid in $reader_pid $driver_pid $broker_pid; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
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
# The memory page's one style block, as a browser hashes it (SHA-256, base64).
policy="default-src 'none'; script-src 'none'; object-src 'none'; style-src 'sha256-xUC9hhoTmbs3g64jA8TG1S3mrULpR859HcsXLzdZOU8='; base-uri 'none'; form-action 'none'; frame-ancestors 'none'; sandbox"
curl -si --max-time 10 "$page_url" >"$work/answer.txt" || fail "curl $page_url failed"
head -1 "$work/answer.txt" | grep -q '^HTTP/1.1 200' || fail "status: $(head -1 "$work/answer.txt")"
csp=$(grep -i '^Content-Security-Policy:' "$work/answer.txt" | tr -d '\r' || true)
[ "$csp" = "Content-Security-Policy: $policy" ] || fail "policy: '$csp', expected '$policy'"
grep -qF '<script>document.body.textContent=123*1000+456</script>' "$work/answer.txt" ||
  fail "the <script> value is not on the page as it is"
rx page >"$work/page.html"
for needle in '<td>87</td>' '<td>0.5</td>' 'Robot/Pose' '"jpeg" 14' 'OtherModule SomeModule ' \
  '<h4>Micro-event</h4>' 'Sonar/Near' '<script>document.body'; do
  grep -qF "$needle" "$work/page.html" || fail "'$needle' is not on the page"
done

# ---- The browser, through chromedriver on a port it picks ----
mkfifo "$work/driver.out"
setsid chromedriver --port=0 >"$work/driver.out" 2>&1 &
driver_pid=$!
exec 4<"$work/driver.out"
while IFS= read -r -t 10 line <&4; do
  case "$line" in
    *"started successfully on port "*) driver=${line##* port } ; driver="http://127.0.0.1:${driver%.}"; break ;;
  esac
done
[ -n "$driver" ] || fail "chromedriver did not start"
# Keep reading its output so that it never blocks on a full pipe.
cat <&4 >/dev/null 2>&1 &
reader_pid=$!

wd() {  # METHOD PATH [JSON]: one WebDriver command; prints its "value"
  local answer
  answer=$(curl -s --max-time 60 -X "$1" -H 'Content-Type: application/json' "$driver$2" ${3:+-d "$3"}) ||
    fail "WebDriver $1 $2: no answer"
  if [ "$(jq -r 'try .value.error // empty' <<<"$answer")" != "" ]; then
    fail "WebDriver $1 $2: $(jq -r '.value.message' <<<"$answer" | head -3)"
  fi
  jq -c '.value' <<<"$answer"
}
args=$(jq -nc --arg dir "$(mktemp -d "$work/profile-XXXXXX")" '["--headless", "--no-sandbox", "--disable-gpu",
  "--disable-quic", "--no-first-run", "--disable-background-networking", "--disable-component-update",
  "--disable-sync", "--window-size=1200,900", "--user-data-dir=" + $dir]')
session=$(wd POST /session "$(jq -nc --arg bin "$chromium_bin" --argjson args "$args" \
  '{capabilities: {alwaysMatch: {"goog:chromeOptions": {binary: $bin, args: $args},
    "goog:loggingPrefs": {browser: "ALL"}}}}')" | jq -r '.sessionId')
[ -n "$session" ] && [ "$session" != null ] || fail "no WebDriver session"

# WebDriver's scripts run in the page even though the page itself may run none.
probe='return {cellFont: getComputedStyle(document.querySelector("td")).fontSize,
  scripts: document.querySelectorAll("script").length, cells: document.querySelectorAll("td").length,
  text: document.body.textContent}'
check_page() {  # URL MIN_CELLS MIN_SCRIPTS
  wd POST "/session/$session/url" "$(jq -nc --arg url "$1" '{url: $url}')" >/dev/null
  local state log
  state=$(wd POST "/session/$session/execute/sync" "$(jq -nc --arg s "$probe" '{script: $s, args: []}')")
  log=$(wd POST "/session/$session/se/log" '{"type": "browser"}')
  # 12px comes only from the page's style block; without it a cell has 16px.
  [ "$(jq -r .cellFont <<<"$state")" = 12px ] ||
    fail "$1: the page's style did not apply (cell font $(jq -r .cellFont <<<"$state")); browser log: $log"
  if jq -r '.[].message' <<<"$log" | grep -i 'style'; then fail "$1: a style was refused; browser log: $log"; fi
  [ "$(jq -r .cells <<<"$state")" -ge "$2" ] || fail "$1: the page lost its tables: $(jq -r .text <<<"$state" | head -c 300)"
  [ "$(jq -r .scripts <<<"$state")" -ge "$3" ] || fail "$1: the injected <script> element is not in the page"
  [ "$(jq -r .text <<<"$state")" != 123456 ] || fail "$1: the browser ran the script of Robot/Script"
  if [ "$3" -gt 0 ]; then
    jq -r '.[].message' <<<"$log" | grep -qi 'script' || fail "$1: no refused script in the browser log: $log"
  fi
}
check_page "$page_url" 20 1
check_page "$http/" 4 0
wd POST "/session/$session/url" "$(jq -nc --arg url "$page_url" '{url: $url}')" >/dev/null

rm -f "$screenshot"
wd GET "/session/$session/screenshot" | jq -r . | base64 -d >"$screenshot" || fail "no screenshot"
wd DELETE "/session/$session" >/dev/null
session=
signature=$(od -An -tx1 -N8 "$screenshot" | tr -d ' \n')
[ "$signature" = "89504e470d0a1a0a" ] || fail "$screenshot is not a PNG ($signature)"
# A blank page compresses to a few KB; three tables of text take far more.
bytes=$(wc -c <"$screenshot")
[ "$bytes" -gt 20000 ] || fail "the screenshot is nearly empty ($bytes bytes)"

echo "status pages rendered with their styles: $bytes bytes of PNG, scripts refused"
