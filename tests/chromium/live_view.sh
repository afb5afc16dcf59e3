#!/usr/bin/env bash
# The live view (/live) in headless Chromium, driven through WebDriver
# (chromedriver): starts rxbroker on free ports, fills the memory through the
# rxmemory command line, then checks
#   - the HTTP answers carry the live view's Content-Security-Policy (the
#     broker's own script and style, nothing inline),
#   - the page loads the table sorted by name, with a note for a binary key
#     without its companion keys,
#   - an event raised from the command line appears within two seconds,
#     flashing, without a reload; raised again, its row changes in place,
#   - a value holding a <script> is shown as text and runs nothing,
#   - the filter box narrows the rows (a glob),
#   - the browser reports no refused script or style,
# and writes a screenshot.
# Usage: live_view.sh RXBROKER RXMEMORY [SCREENSHOT.png]
# Exits 77 (SKIPPED for ctest) when Chromium, chromedriver, curl or jq is
# missing: scripts/install-deps installs them.
set -euo pipefail

broker_bin=${1:?usage: live_view.sh RXBROKER RXMEMORY [SCREENSHOT.png]}
cli_bin=${2:?usage: live_view.sh RXBROKER RXMEMORY [SCREENSHOT.png]}

# shellcheck source=browser_lib.sh
. "$(dirname "$0")/browser_lib.sh"
screenshot=${3:-$work/live_view.png}
start_broker "$broker_bin"
rx() { "$cli_bin" --url "$url" --http "$http" "$@"; }

rx insert Robot/Battery 87
rx insert Robot/Speed 0.5
rx insert Robot/Name '"Rex the robot"'
rx describe Robot/Battery 'charge left, in percent'
rx insert Camera/Frame '{"$binary": "/9j/4AAQSkZJRgABAQ=="}'
rx insert Robot/Script '"<script>window.rxInjected = 1</script>"'
rx raise Robot/Bumped '["left", 2]'
rx call subscribeToEvent Robot/Bumped SomeModule onEvent
rx raise-micro Sonar/Near 0.42

# ---- The HTTP answers ----
policy="default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'"
for path in /live /live/live.js /live/live.css /live/keys.json; do
  curl -si --max-time 10 "$http$path" >"$work/answer.txt" || fail "curl $path failed"
  head -1 "$work/answer.txt" | grep -q '^HTTP/1.1 200' || fail "$path: $(head -1 "$work/answer.txt")"
  csp=$(grep -i '^Content-Security-Policy:' "$work/answer.txt" | tr -d '\r' || true)
  [ "$csp" = "Content-Security-Policy: $policy" ] || fail "$path: policy '$csp', expected '$policy'"
done

# ---- The page ----
start_browser
open_url "$http/live"

# wait_for JS_CONDITION WHAT SECONDS: polls the page's DOM (the page itself
# is pushed its changes; only the test polls) until the condition holds.
wait_for() {
  local deadline=$((SECONDS + $3))
  until [ "$(run_js "return Boolean($1)")" = true ]; do
    [ $SECONDS -lt "$deadline" ] || fail "$2 not seen within $3 s: $(run_js 'return document.body.innerText' | head -c 600)"
    sleep 0.05
  done
}
rows='[...document.querySelectorAll("#keys tbody tr")]'
row_of() { echo "$rows.find((tr) => tr.cells[0].textContent === \"$1\")"; }
wait_for "document.getElementById('status').textContent === 'live' && $rows.length >= 9" "the loaded table" 10

names=$(run_js "return $rows.map((tr) => tr.cells[0].textContent)")
[ "$names" = "$(jq -c 'sort' <<<"$names")" ] || fail "rows not sorted by name: $names"
note=$(run_js "return $(row_of Camera/Frame).querySelector('.note').textContent")
[ "$note" = '"binary value without its companion keys Camera/Frame_type and Camera/Frame_val"' ] ||
  fail "binary key's note: $note"
[ "$(run_js "return $(row_of Robot/Battery).cells[5].textContent")" = '"charge left, in percent"' ] ||
  fail "description of Robot/Battery not shown"

# ---- An event raised from the command line ----
run_js 'window.rxNotReloaded = true; return null' >/dev/null
start=$(date +%s%N)
rx raise Test/Live '["hello", 7]'
wait_for "$(row_of Test/Live)?.cells[3].textContent === '[\"hello\", 7]'" "the raised event Test/Live" 2
elapsed_ms=$((($(date +%s%N) - start) / 1000000))
[ "$(run_js "return $(row_of Test/Live).classList.contains('flash')")" = true ] || fail "Test/Live did not flash"
[ "$(run_js 'return window.rxNotReloaded === true')" = true ] || fail "the page reloaded"
run_js "window.rxRow = $(row_of Test/Live); return null" >/dev/null
rx raise Test/Live '["again", 8]'
wait_for "window.rxRow.isConnected && window.rxRow.cells[3].textContent === '[\"again\", 8]'" \
  "Test/Live updated in place" 2

# ---- A value holding a <script> ----
[ "$(run_js "return $(row_of Robot/Script).cells[3].textContent")" = '"\"<script>window.rxInjected = 1</script>\""' ] ||
  fail "the <script> value is not shown as text: $(run_js "return $(row_of Robot/Script).cells[3].innerHTML")"
[ "$(run_js 'return [window.rxInjected === undefined, document.querySelectorAll("script").length]')" = '[true,1]' ] ||
  fail "the <script> value became part of the page"

# ---- The filter ----
filter=$(wd POST "/session/$session/element" '{"using": "css selector", "value": "#filter"}' | jq -r '.[]')
wd POST "/session/$session/element/$filter/value" '{"text": "robot/b*"}' >/dev/null
wait_for "$rows.filter((tr) => !tr.hidden).length === 2" "the filtered rows" 5
shown=$(run_js "return $rows.filter((tr) => !tr.hidden).map((tr) => tr.cells[0].textContent)")
[ "$shown" = '["Robot/Battery","Robot/Bumped"]' ] || fail "filter robot/b* shows $shown"
wd POST "/session/$session/element/$filter/clear" '{}' >/dev/null
wd POST "/session/$session/element/$filter/value" '{"text": "Sonar"}' >/dev/null
wait_for "$rows.filter((tr) => !tr.hidden).length === 1" "the substring filter" 5

log=$(browser_log)
if jq -r '.[].message' <<<"$log" | grep -i 'content security policy\|refused'; then fail "the browser refused something: $log"; fi

wd POST "/session/$session/element/$filter/clear" '{}' >/dev/null
wd POST "/session/$session/element/$filter/value" '{"text": "*"}' >/dev/null
save_screenshot "$screenshot" 20000
echo "live view: the raised event showed after $elapsed_ms ms, in place, filtered, scripts shown as text; $(wc -c <"$screenshot") bytes of PNG"
