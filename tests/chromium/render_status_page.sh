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

# shellcheck source=browser_lib.sh
. "$(dirname "$0")/browser_lib.sh"
screenshot=${3:-$work/page.png}
start_broker "$broker_bin"

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

# ---- The browser ----
start_browser

# WebDriver's scripts run in the page even though the page itself may run none.
probe='return {cellFont: getComputedStyle(document.querySelector("td")).fontSize,
  scripts: document.querySelectorAll("script").length, cells: document.querySelectorAll("td").length,
  text: document.body.textContent}'
check_page() {  # URL MIN_CELLS MIN_SCRIPTS
  open_url "$1"
  local state log
  state=$(run_js "$probe")
  log=$(browser_log)
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
open_url "$page_url"
# Three tables of text take far more than a blank page.
save_screenshot "$screenshot" 20000
bytes=$(wc -c <"$screenshot")

echo "status pages rendered with their styles: $bytes bytes of PNG, scripts refused"
